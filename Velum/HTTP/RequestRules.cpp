#include "Velum/HTTP/RequestRules.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "Velum/Base/String.h"

namespace velum {
namespace {

// The characters that names of methods and header fields are made of.
bool isToken(std::string_view text) {
  constexpr std::string_view allowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'*+-.^_`|~";
  return !text.empty() && text.find_first_not_of(allowed) == std::string_view::npos;
}

bool isFieldValue(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool isReserved(std::string_view name) {
  constexpr std::array<std::string_view, 2> reserved{"Content-Length", "Transfer-Encoding"};
  return std::ranges::any_of(
      reserved, [name](std::string_view other) { return equalsIgnoringCase(name, other); });
}

}  // namespace

std::optional<URLError> requestError(const URLRequest& request) {
  if (!isToken(request.method)) {
    return URLError::posix(EINVAL, "the method is not one; write GET or another word");
  }
  const auto isField = [](const HTTPHeaders::Field& field) {
    return isToken(field.first) && isFieldValue(field.second);
  };
  if (!std::ranges::all_of(request.headers, isField)) {
    return URLError::posix(EINVAL, "a header field's name or value holds what it must not");
  }
  return std::nullopt;
}

HTTPHeaders headersToSend(const URLRequest& request) {
  HTTPHeaders headers;
  for (const auto& [name, value] : request.headers) {
    if (!isReserved(name)) headers.add(name, std::string(trimmed(value)));
  }
  const bool reloads = request.cachePolicy == URLRequest::CachePolicy::reloadIgnoringLocalCacheData;
  if (reloads && !headers.value("Cache-Control")) headers.add("Cache-Control", "no-cache");
  return headers;
}

std::chrono::nanoseconds timeoutOf(const URLRequest& request) {
  constexpr double week = 7.0 * 24 * 60 * 60;
  const double seconds =
      request.timeoutInterval > 0 ? request.timeoutInterval : URLRequest::defaultTimeout;
  return std::chrono::nanoseconds(static_cast<std::int64_t>(std::min(seconds, week) * 1e9));
}

}  // namespace velum
