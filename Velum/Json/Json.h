#pragma once

#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "Velum/Base/SecretBytes.h"
#include "Velum/Json/JsonString.h"

namespace velum {

/// Text that leaves no copy in freed memory.
using SecretText = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;

namespace detail {

template <class Text>
void appendJsonElement(Text& out, const std::string& text) {
  // The library's own error for it, which has no public constructor.
  if (!appendJsonString(out, text)) static_cast<void>(nlohmann::json("\xFF").dump());
}

template <class Text>
void appendJsonElement(Text& out, const nlohmann::json& value) {
  auto separate = [&out, isFirst = true]() mutable {
    if (!std::exchange(isFirst, false)) out.push_back(',');
  };
  if (const auto* text = value.get_ptr<const std::string*>()) {
    appendJsonElement(out, *text);
  } else if (const auto* array = value.get_ptr<const nlohmann::json::array_t*>()) {
    out.push_back('[');
    for (const auto& element : *array) {
      separate();
      appendJsonElement(out, element);
    }
    out.push_back(']');
  } else if (const auto* object = value.get_ptr<const nlohmann::json::object_t*>()) {
    out.push_back('{');
    for (const auto& [key, element] : *object) {
      separate();
      appendJsonElement(out, key);
      out.push_back(':');
      appendJsonElement(out, element);
    }
    out.push_back('}');
  } else {
    if (value.is_number_float() && !std::isfinite(value.get<double>())) {
      throw std::domain_error("a number is not finite");  // the library would write null
    }
    std::string scalar = value.dump();
    out.append(scalar);
    if constexpr (!std::is_same_v<Text, std::string>) wipe(scalar);  // else `out` shows it too
  }
}

}  // namespace detail

/// The value as JSON without blanks, its texts in the form of appendJsonString. Throws when JSON
/// can't express it: text that is no UTF-8, numbers that are not finite.
template <class Text = std::string>
Text jsonText(const nlohmann::json& value) {
  constexpr std::size_t onHeap = 64;  // short texts would lie in the object, which nothing wipes
  Text text;
  text.reserve(onHeap);
  detail::appendJsonElement(text, value);
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
