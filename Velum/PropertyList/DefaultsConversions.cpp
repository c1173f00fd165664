#include "Velum/PropertyList/DefaultsConversions.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>

namespace velum {
namespace {

template <class T, class Value>
constexpr bool is = std::is_same_v<std::decay_t<Value>, T>;

template <class Value>
constexpr bool isNumber = std::is_arithmetic_v<std::decay_t<Value>>;

std::string_view withoutBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
  return text;
}

constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();

std::int64_t integerOf(double number) {
  if (std::isnan(number)) return 0;
  constexpr double beyond = 9223372036854775808.0;  // 2^63, which the type just does not hold
  if (number >= beyond) return most;
  return number < -beyond ? least : static_cast<std::int64_t>(number);
}

std::int64_t integerOf(std::string_view text) {
  text = withoutBlanks(text);
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  std::int64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec == std::errc::result_out_of_range) return text.starts_with('-') ? least : most;
  return number;
}

double doubleOf(std::string_view text) {
  text = withoutBlanks(text);
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  double number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

bool boolOf(std::string_view text) {
  text = withoutBlanks(text);
  if (text.starts_with('+') || text.starts_with('-')) text.remove_prefix(1);
  const auto decisive = text.find_first_not_of('0');
  return decisive != std::string_view::npos &&
         std::string_view("YyTt123456789").find(text[decisive]) != std::string_view::npos;
}

}  // namespace

bool boolFrom(const PropertyList& value) {
  return std::visit(
      [](const auto& content) {
        if constexpr (is<std::string, decltype(content)>) {
          return boolOf(content);
        } else if constexpr (isNumber<decltype(content)>) {
          return content != 0;
        } else {
          return false;
        }
      },
      value.value);
}

std::int64_t integerFrom(const PropertyList& value) {
  return std::visit(
      [](const auto& content) -> std::int64_t {
        if constexpr (is<std::string, decltype(content)> || is<double, decltype(content)>) {
          return integerOf(content);
        } else if constexpr (is<std::uint64_t, decltype(content)>) {
          return static_cast<std::int64_t>(std::min(content, static_cast<std::uint64_t>(most)));
        } else if constexpr (isNumber<decltype(content)>) {
          return content;
        } else {
          return 0;
        }
      },
      value.value);
}

double doubleFrom(const PropertyList& value) {
  return std::visit(
      [](const auto& content) -> double {
        if constexpr (is<std::string, decltype(content)>) {
          return doubleOf(content);
        } else if constexpr (isNumber<decltype(content)>) {
          return static_cast<double>(content);
        } else {
          return 0;
        }
      },
      value.value);
}

std::optional<std::string> stringFrom(const PropertyList& value) {
  return std::visit(
      [](const auto& content) -> std::optional<std::string> {
        if constexpr (is<std::string, decltype(content)>) {
          return content;
        } else if constexpr (is<bool, decltype(content)>) {
          return content ? "1" : "0";
        } else if constexpr (isNumber<decltype(content)>) {
          return fmt::format("{}", content);
        } else {
          return std::nullopt;
        }
      },
      value.value);
}

bool isUrl(std::string_view text) noexcept {
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const auto isOfScheme = [&](char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  };
  const auto colon = text.find(':');
  return colon != std::string_view::npos && colon > 0 && isLetter(text.front()) &&
         std::ranges::all_of(text.substr(0, colon), isOfScheme);
}

}  // namespace velum
