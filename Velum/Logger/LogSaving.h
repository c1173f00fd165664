#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Logger/LogHandler.h"

namespace velum {

/// What part of a log is to be saved.
struct LogSavingOpts {
  std::optional<LogDate>
      startDate;  ///< Records from one second before it on; absent: from the first.
  std::optional<LogDate> endDate;       ///< Records up to one second after it; absent: to the last.
  std::optional<std::int64_t> maxSize;  ///< Bytes of each saved file, its newest; absent: no limit.
};

/// Whose records are to be saved.
class LogSubsystemSelector {
 public:
  /// The complete log, in one file where no dates are given.
  static LogSubsystemSelector whole() { return {Kind::whole, {}}; }
  /// Every subsystem found in the log, one file each.
  static LogSubsystemSelector all() { return {Kind::all, {}}; }
  static LogSubsystemSelector single(std::string name) { return {Kind::some, {std::move(name)}}; }
  static LogSubsystemSelector some(std::vector<std::string> names) {
    return {Kind::some, std::move(names)};
  }

  bool isWhole() const noexcept { return kind_ == Kind::whole; }
  /// Names are compared byte by byte.
  bool admits(std::string_view subsystem) const noexcept {
    return kind_ != Kind::some || std::ranges::find(names_, subsystem) != names_.end();
  }

 private:
  enum class Kind : std::uint8_t { whole, all, some };
  LogSubsystemSelector(Kind kind, std::vector<std::string> names)
      : kind_(kind), names_(std::move(names)) {}

  Kind kind_;
  std::vector<std::string> names_;
};

}  // namespace velum
