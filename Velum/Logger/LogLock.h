#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "Velum/Progress.h"

namespace velum {

/// How long to wait for a log's lock, and whom to tell.
struct LogLockWait {
  std::chrono::milliseconds limit{30'000};
  const Progress* progress = nullptr;  ///< Cancelling it ends the wait.
  std::function<void()> onWait;        ///< Called once when the wait has lasted a second.
};

/// The lock that every writer of a log takes, for those who read or empty the log: excludes other
/// processes and other descriptors of this one. Whoever holds it may be stopped or hung, so the
/// wait has an end. Where the file system has no such locks, or the descriptor is -1, nothing is
/// held and the caller goes on.
class LogLock {
 public:
  enum class Outcome : std::uint8_t { goOn, cancelled, timedOut };

  LogLock(int fd, const LogLockWait& wait);
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;
  ~LogLock();

  Outcome outcome() const noexcept { return outcome_; }

 private:
  bool take() noexcept;

  int fd_;
  bool isHeld_ = false;
  Outcome outcome_ = Outcome::goOn;
};

}  // namespace velum
