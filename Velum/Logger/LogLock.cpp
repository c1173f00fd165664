#include "Velum/Logger/LogLock.h"

#include <algorithm>

#include "Velum/Base/Deadline.h"

namespace velum {

LogLock::LogLock(int fd, const LogLockWait& wait) {
  using Clock = std::chrono::steady_clock;
  using std::chrono::nanoseconds;
  constexpr nanoseconds step = std::chrono::milliseconds(50);
  constexpr nanoseconds patience = std::chrono::seconds(1);
  const nanoseconds limit = bounded(wait.limit);
  const Clock::time_point start = Clock::now();
  nanoseconds waited{0};
  for (bool isTold = !wait.onWait;
       !lock_.emplace(FileLock::tryFor(fd, std::min(step, limit - waited)));) {
    if (wait.progress != nullptr && wait.progress->isCancelled()) {
      waitResult_ = WaitResult::cancelled;
      return;
    }
    waited = Clock::now() - start;
    if (waited >= limit) {
      waitResult_ = WaitResult::timedOut;
      return;
    }
    if (!isTold && waited >= patience) {
      isTold = true;
      wait.onWait();
    }
  }
}

}  // namespace velum
