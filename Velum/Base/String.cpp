#include "Velum/Base/String.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace velum {
namespace {

constexpr std::array<std::string_view, 2> secretHeaders{"cookie", "authorization"};
constexpr std::string_view setPrefix = "set-";

// ASCII only and independent of the locale. `lower` holds letters and '-', which bit 5 leaves
// alone; no other byte of a text maps onto them that way but their upper-case forms and, for '-',
// the carriage return, which is why that one is excluded.
bool endsWithIgnoringCase(std::string_view text, std::string_view lower) noexcept {
  if (text.size() < lower.size()) return false;
  const char* byte = text.data() + (text.size() - lower.size());
  return std::all_of(lower.begin(), lower.end(), [&byte](char expected) {
    const char actual = *byte++;
    return actual == expected || (expected != '-' && (actual | 0x20) == expected);
  });
}

// How many bytes before a ": " name a header whose value is secret; 0 when none.
std::size_t secretHeaderLength(std::string_view before) noexcept {
  for (const std::string_view name : secretHeaders) {
    if (!endsWithIgnoringCase(before, name)) continue;
    const std::string_view rest = before.substr(0, before.size() - name.size());
    const bool isSetCookie = name == secretHeaders[0] && endsWithIgnoringCase(rest, setPrefix);
    return name.size() + (isSetCookie ? setPrefix.size() : 0);
  }
  return 0;
}

}  // namespace

void appendStrippedHeaders(std::string& out, std::string_view text) {
  constexpr std::string_view replacement = ": stripped";
  std::size_t copied = 0;  // everything before it is in `out`
  std::size_t searched = 0;
  while (true) {
    const std::size_t colon = text.find(':', searched);
    if (colon == std::string_view::npos) break;
    searched = colon + 1;
    const std::size_t value = colon + 2;
    if (value >= text.size() || text[colon + 1] != ' ' || text[value] == '\n') continue;
    if (secretHeaderLength(text.substr(copied, colon - copied)) == 0) continue;
    out.append(text, copied, colon - copied).append(replacement);
    copied = std::min(text.find('\n', value), text.size());
    searched = copied;
  }
  out.append(text, copied);
}

std::string strippedHeaders(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  appendStrippedHeaders(out, text);
  return out;
}

namespace {

bool isContinuation(unsigned char byte) noexcept {
  return (byte & 0xC0U) == 0x80U;
}

struct Sequence {
  std::size_t length;  // bytes to consume, at least 1
  bool isValid;
};

// Decodes the sequence at the start of `text` (not empty). An ill-formed one is as long as its
// longest prefix that could have begun a well-formed one, which is what decoders replace at once.
Sequence nextSequence(std::string_view text) noexcept {
  const auto at = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = at(0);
  if (lead < 0x80) return {1, true};
  std::size_t length = 0;
  unsigned char lowest = 0x80;   // bounds of the second byte, which exclude overlong forms,
  unsigned char highest = 0xBF;  // surrogates and what lies above U+10FFFF
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) lowest = 0xA0;
    if (lead == 0xED) highest = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) lowest = 0x90;
    if (lead == 0xF4) highest = 0x8F;
  } else {
    return {1, false};
  }
  if (text.size() < 2 || at(1) < lowest || at(1) > highest) return {1, false};
  for (std::size_t i = 2; i < length; ++i) {
    if (i >= text.size() || !isContinuation(at(i))) return {i, false};
  }
  return {length, true};
}

// The length of the ASCII run at the start of `text`, eight bytes a step.
std::size_t asciiPrefix(std::string_view text) noexcept {
  constexpr std::uint64_t highBits = 0x8080808080808080U;
  std::size_t i = 0;
  for (std::uint64_t word = 0; i + sizeof word <= text.size(); i += sizeof word) {
    std::memcpy(&word, text.data() + i, sizeof word);
    if ((word & highBits) != 0) break;
  }
  while (i < text.size() && static_cast<unsigned char>(text[i]) < 0x80) ++i;
  return i;
}

}  // namespace

bool isValidUtf8(std::string_view text) noexcept {
  while (true) {
    text.remove_prefix(asciiPrefix(text));
    if (text.empty()) return true;
    const Sequence sequence = nextSequence(text);
    if (!sequence.isValid) return false;
    text.remove_prefix(sequence.length);
  }
}

std::string repairedUtf8(std::string_view text) {
  constexpr std::string_view replacementCharacter = "\xEF\xBF\xBD";
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const Sequence sequence = nextSequence(text);
    out.append(sequence.isValid ? text.substr(0, sequence.length) : replacementCharacter);
    text.remove_prefix(sequence.length);
  }
  return out;
}

namespace {

constexpr bool isAsciiLetter(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// What RFC 3986 calls unreserved: it means the same everywhere in a URL.
constexpr bool isUnreserved(char c) noexcept {
  return isAsciiLetter(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
}

void appendHex(std::string& out, char byte, std::string_view digits) {
  const auto value = static_cast<unsigned char>(byte);
  out += digits[value >> 4U];
  out += digits[value & 0xFU];
}

}  // namespace

bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return x == y || (isAsciiLetter(x) && isAsciiLetter(y) && (x | 0x20) == (y | 0x20));
  });
}

std::string_view trimmed(std::string_view text) noexcept {
  constexpr std::string_view blanks = " \t\r\n";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string escapedUrlQueryParam(std::optional<std::string_view> text) {
  std::string out;
  if (!text) return out;
  out.reserve(text->size());
  for (const char c : *text) {
    if (isUnreserved(c)) {
      out += c;
    } else {
      out += '%';
      appendHex(out, c, "0123456789ABCDEF");
    }
  }
  return out;
}

std::string hexText(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char byte : bytes) appendHex(out, byte, "0123456789abcdef");
  return out;
}

}  // namespace velum
