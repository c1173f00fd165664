#include <utf8proc.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "Velum/Base/String.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Telemetry.h"

namespace velum {
namespace {

/// The whole text as a number, with or without a sign; nothing when it is none, or too large.
std::optional<std::int64_t> hexadecimalNumber(std::string_view text) {
  constexpr int base = 16;
  if (text.starts_with('+')) {  // from_chars knows the other sign only
    text.remove_prefix(1);
    if (text.starts_with('-')) return std::nullopt;
  }
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

/// A number that decimal numbers are written behind, as if it were text.
class DecimalText {
 public:
  /// False when it gets too large.
  bool append(std::int64_t code) {
    constexpr std::int64_t base = 10;
    std::int64_t power = base;
    while (power <= code) power *= base;
    return !__builtin_mul_overflow(value_, power, &value_) &&
           !__builtin_add_overflow(value_, code, &value_);
  }
  std::int64_t value() const noexcept { return value_; }

 private:
  std::int64_t value_ = 0;
};

/// Takes the characters off the front of a text, each with its accents and whatever else readers
/// see as one character. A carriage return and its line feed are one, too.
class Characters {
 public:
  /// The text is UTF-8.
  explicit Characters(std::string_view text) : rest_(text), next_(takeCodePoint()) {}

  bool areAtEnd() const noexcept { return next_ == end; }

  /// The next character's ASCII code, the line feed's for a line end; 0 for other characters.
  std::int64_t takeAsciiCode() {
    const utf8proc_int32_t first = next_;
    utf8proc_int32_t last = first;
    utf8proc_int32_t state = 0;
    std::size_t count = 1;
    for (next_ = takeCodePoint();
         !areAtEnd() && !utf8proc_grapheme_break_stateful(last, next_, &state);
         next_ = takeCodePoint()) {
      last = next_;
      ++count;
    }
    if (first == '\r' && last == '\n') return '\n';
    constexpr utf8proc_int32_t lastAscii = 0x7F;
    return count == 1 && first <= lastAscii ? first : 0;
  }

 private:
  static constexpr utf8proc_int32_t end = -1;

  utf8proc_int32_t takeCodePoint() {
    utf8proc_int32_t point = end;
    const auto size =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(rest_.data()),  // NOLINT: bytes
                         static_cast<utf8proc_ssize_t>(rest_.size()), &point);
    if (size <= 0) return end;
    rest_.remove_prefix(static_cast<std::size_t>(size));
    return point;
  }

  std::string_view rest_;
  utf8proc_int32_t next_;
};

/// The number whose decimal digits are the characters' codes; nothing when it is too large.
std::optional<std::int64_t> numberOfCodes(std::string_view text) {
  const std::string repaired = repairedUtf8(text);
  DecimalText number;
  for (Characters characters(repaired); !characters.areAtEnd();) {
    if (!number.append(characters.takeAsciiCode())) return std::nullopt;
  }
  return number.value();
}

}  // namespace

std::string Telemetry::createSyntheticId(std::string_view text) {
  constexpr std::string_view alphabet = "abcdef123456789";
  constexpr std::size_t length = invalidSyntheticId.size();
  std::int64_t number = hexadecimalNumber(text).value_or(0);
  if (number == 0) number = numberOfCodes(text).value_or(0);
  if (number == 0) {
    logError({"Velum/Telemetry", "createSyntheticId(from:)"}, "Invalid synthetic id");
    return std::string(invalidSyntheticId);
  }
  constexpr auto base = static_cast<std::int64_t>(alphabet.size());
  std::string identifier;
  for (std::size_t digit = 0; digit < length; ++digit) {
    identifier.push_back(alphabet[static_cast<std::size_t>(std::llabs(number % base))]);
    number /= base;
  }
  return identifier;
}

}  // namespace velum
