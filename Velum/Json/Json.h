#pragma once

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Velum/Base/SecretBytes.h"

namespace velum {

/// Text that leaves no copy in freed memory.
using SecretText = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;

/// How the platform's own encoder writes a slash in a string. JSON allows it unescaped as well.
inline constexpr std::string_view escapedJsonSlash = "\\/";

namespace detail {
inline void requireFiniteNumbers(const nlohmann::json& value) {
  if (value.is_number_float() && !std::isfinite(value.get<double>())) {
    throw std::domain_error("a number is not finite");
  }
  if (!value.is_structured()) return;
  for (const auto& element : value) requireFiniteNumbers(element);
}
}  // namespace detail

/// The value as JSON in the form that the platform's own encoder writes and others compare byte by
/// byte: no spaces, every slash as "\/", other text unescaped UTF-8. Throws when JSON can't
/// express it: text that is no UTF-8, numbers that are not finite.
template <class Text = std::string>
Text jsonText(const nlohmann::json& value) {
  detail::requireFiniteNumbers(value);  // the library would write null
  constexpr std::size_t onHeap = 64;    // short texts would lie in the object, which nothing wipes
  Text plain;
  plain.reserve(onHeap);
  // What dump() does, but into any kind of text.
  nlohmann::detail::serializer<nlohmann::json>(nlohmann::detail::output_adapter<char, Text>(plain),
                                               ' ')
      .dump(value, false, false, 0);
  Text text;
  text.reserve(std::max(plain.size(), onHeap));
  for (const char unit : plain) {
    if (unit == '/') {  // stands in strings only
      text.append(escapedJsonSlash);
    } else {
      text.push_back(unit);
    }
  }
  return text;
}

/// The value that the bytes stand for. Throws for malformed ones, and for arrays and objects nested
/// deeper than anybody writes them: whoever walks or copies a value uses stack for each level.
template <class Bytes>
nlohmann::json parsedJson(const Bytes& bytes) {
  return nlohmann::json::parse(
      bytes.begin(), bytes.end(),
      [](int depth, nlohmann::json::parse_event_t /*event*/, nlohmann::json& /*value*/) {
        constexpr int deepest = 512;
        if (depth >= deepest) throw std::length_error("nested too deep");
        return true;
      });
}

/// What went wrong, for the log. The library's own text quotes what it read, which may be secret.
inline std::string jsonErrorText(const nlohmann::json::exception& error) {
  std::string text = "JSON error " + std::to_string(error.id);
  if (const auto* parse = dynamic_cast<const nlohmann::json::parse_error*>(&error)) {
    text += " at byte " + std::to_string(parse->byte);
  }
  return text;
}

/// Overwrites all texts in the value.
inline void wipe(nlohmann::json& value) noexcept {
  if (auto* text = value.get_ptr<std::string*>()) {
    wipe(*text);
  } else if (auto* array = value.get_ptr<nlohmann::json::array_t*>()) {
    for (auto& element : *array) wipe(element);
  } else if (auto* object = value.get_ptr<nlohmann::json::object_t*>()) {
    for (auto& [key, element] : *object) wipe(element);
  }
}

}  // namespace velum
