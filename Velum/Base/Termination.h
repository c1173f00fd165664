#pragma once

#include <cstdint>
#include <string>

namespace velum {

/// How a process ended.
struct Termination {
  enum class Reason : std::uint8_t { exit, uncaughtSignal };

  int status = 0;  ///< The exit status, or the number of the signal.
  Reason reason = Reason::exit;

  /// From what wait(2) told.
  static Termination ofWaitStatus(int waitStatus) noexcept;
  /// "ended with status 3", "was ended by signal 9".
  std::string text() const;
  bool operator==(const Termination&) const = default;
};

}  // namespace velum
