#include "Velum/Logger/LogLock.h"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {

LogLock::LogLock(int fd, const LogLockWait& wait) : fd_(fd) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds longestPause(50);
  constexpr std::chrono::seconds patience(1);
  std::chrono::milliseconds pause(1);
  const Clock::time_point start = Clock::now();
  for (bool isTold = !wait.onWait; !take(); pause = std::min(2 * pause, longestPause)) {
    if (wait.progress != nullptr && wait.progress->isCancelled()) {
      outcome_ = Outcome::cancelled;
      return;
    }
    const auto waited = Clock::now() - start;
    if (waited >= wait.limit) {
      outcome_ = Outcome::timedOut;
      return;
    }
    if (!isTold && waited >= patience) {
      isTold = true;
      wait.onWait();
    }
    std::this_thread::sleep_for(pause);
  }
}

LogLock::~LogLock() {
  if (isHeld_) ::flock(fd_, LOCK_UN);
}

// False while somebody else holds it.
bool LogLock::take() noexcept {
  if (fd_ < 0) return true;
  isHeld_ = retryInterrupted([this] { return ::flock(fd_, LOCK_EX | LOCK_NB); }) == 0;
  return isHeld_ || errno != EWOULDBLOCK;
}

}  // namespace velum
