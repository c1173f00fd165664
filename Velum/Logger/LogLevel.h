#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace velum {

/// How severe a log record is. The raw values are ordered and stand in files and interfaces.
enum class LogLevel : std::uint8_t { verbose = 0, debug = 1, info = 2, warning = 3, error = 4 };

/// The level with that raw value; nothing outside 0 to 4.
constexpr std::optional<LogLevel> logLevel(int rawValue) noexcept {
  if (rawValue < 0 || rawValue > 4) return std::nullopt;
  return static_cast<LogLevel>(rawValue);
}

/// The level with exactly that name, lower case; nothing for any other text.
std::optional<LogLevel> logLevel(std::string_view name) noexcept;

/// The level's name: "verbose", "debug", "info", "warning" or "error".
std::string_view description(LogLevel level) noexcept;

/// The letter that begins a record: V, D, I, W or E.
constexpr char letter(LogLevel level) noexcept {
  return "VDIWE"[static_cast<unsigned>(level)];
}

/// True for the levels whose records name the function too (verbose, debug and error). Info and
/// warning records name only the file, to stay short where users read them.
constexpr bool namesFunction(LogLevel level) noexcept {
  constexpr unsigned mask = 0b10011;
  return ((mask >> static_cast<unsigned>(level)) & 1U) != 0;
}

}  // namespace velum
