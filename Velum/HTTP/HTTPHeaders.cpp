#include "Velum/HTTP/HTTPHeaders.h"

#include <algorithm>

#include "Velum/Base/String.h"

namespace velum {

void HTTPHeaders::set(std::string_view name, std::string value) {
  const auto isNamed = [name](const Field& field) { return equalsIgnoringCase(field.first, name); };
  const auto first = std::find_if(fields_.begin(), fields_.end(), isNamed);
  if (first == fields_.end()) {
    add(std::string(name), std::move(value));
    return;
  }
  first->second = std::move(value);
  fields_.erase(std::remove_if(first + 1, fields_.end(), isNamed), fields_.end());
}

void HTTPHeaders::add(std::string name, std::string value) {
  fields_.emplace_back(std::move(name), std::move(value));
}

std::optional<std::string_view> HTTPHeaders::value(std::string_view name) const noexcept {
  for (const Field& field : fields_) {
    if (equalsIgnoringCase(field.first, name)) return field.second;
  }
  return std::nullopt;
}

}  // namespace velum
