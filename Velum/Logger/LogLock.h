#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "Velum/Base/Progress.h"
#include "Velum/Files/FileLock.h"

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
  enum class WaitResult : std::uint8_t { goOn, cancelled, timedOut };

  /// The descriptor must stay open as long as the lock.
  LogLock(int fd, const LogLockWait& wait);
  WaitResult waitResult() const noexcept { return waitResult_; }

 private:
  std::optional<FileLock> lock_;
  WaitResult waitResult_ = WaitResult::goOn;
};

}  // namespace velum
