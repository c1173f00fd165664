#include "Velum/Files/FileLock.h"

#include <sched.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

using std::chrono::nanoseconds;
using Clock = std::chrono::steady_clock;

FileLock::State take(int fd, int operation) noexcept {
  if (fd < 0) return FileLock::State::unneeded;
  if (retryInterrupted([=] { return ::flock(fd, operation); }) == 0) return FileLock::State::held;
  return errno == EWOULDBLOCK ? FileLock::State::elsewhere : FileLock::State::unneeded;
}

}  // namespace

FileLock FileLock::tryFor(int fd, nanoseconds limit) noexcept {
  constexpr int yields = 3;  // most locks are held for a few microseconds
  constexpr nanoseconds shortest = std::chrono::microseconds(20);
  constexpr nanoseconds longest = std::chrono::milliseconds(1);
  State state = take(fd, LOCK_EX | LOCK_NB);
  if (state != State::elsewhere || limit <= nanoseconds::zero()) return {fd, state};
  const auto begin = Clock::now();
  nanoseconds waited{0};
  for (int tries = 0; state == State::elsewhere && waited < limit; ++tries) {
    if (tries < yields) {
      ::sched_yield();
    } else {
      std::this_thread::sleep_for(
          std::min(std::clamp(waited / 8, shortest, longest), limit - waited));
    }
    state = take(fd, LOCK_EX | LOCK_NB);
    waited = Clock::now() - begin;
  }
  return {fd, state};
}

FileLock::~FileLock() {
  if (state_ == State::held) ::flock(fd_, LOCK_UN);
}

}  // namespace velum
