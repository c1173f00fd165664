#pragma once

#include <cstddef>
#include <string_view>

#include "Velum/Base/String.h"

namespace velum {

/// Appends `text` as a JSON string to any kind of text, in the form that the platform's own encoder
/// writes and others compare byte by byte: every slash as "\/", control characters escaped in the
/// shortest way, all else as it is. False when it is no UTF-8; then nothing is appended.
template <class Text>
bool appendJsonString(Text& out, std::string_view text) {
  constexpr std::string_view units = "/\"\\\b\f\n\r\t";
  constexpr std::string_view letters = "/\"\\bfnrt";
  constexpr std::string_view digits = "0123456789abcdef";
  if (!isValidUtf8(text)) return false;
  out.push_back('"');
  std::size_t start = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto unit = static_cast<unsigned char>(text[at]);
    if (unit >= ' ' && unit != '"' && unit != '\\' && unit != '/') continue;
    out.append(text, start, at - start);
    start = at + 1;
    out.push_back('\\');
    if (const auto known = units.find(text[at]); known != std::string_view::npos) {
      out.push_back(letters[known]);
    } else {
      out.append("u00").push_back(digits[unit >> 4U]);
      out.push_back(digits[unit & 0xFU]);
    }
  }
  out.append(text, start);
  out.push_back('"');
  return true;
}

}  // namespace velum
