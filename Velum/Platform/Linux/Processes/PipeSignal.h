#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>

#include "Velum/Files/UniqueFd.h"

namespace velum {

/// As long as it lives, takes the SIGPIPE of this thread's own writes away and leaves any other.
/// For writes that have no flag to ask for it, such as those inside other libraries.
class PipeSignalBlock {
 public:
  PipeSignalBlock() noexcept {
    ::sigemptyset(&pipeSignal_);
    ::sigaddset(&pipeSignal_, SIGPIPE);
    wasPending_ = isPending();
    ::pthread_sigmask(SIG_BLOCK, &pipeSignal_, &previous_);
  }
  PipeSignalBlock(const PipeSignalBlock&) = delete;
  PipeSignalBlock& operator=(const PipeSignalBlock&) = delete;
  ~PipeSignalBlock() {
    const int error = errno;
    const timespec now{};
    if (!wasPending_ && isPending()) {
      retryInterrupted([&] { return ::sigtimedwait(&pipeSignal_, nullptr, &now); });
    }
    ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    errno = error;
  }

 private:
  static bool isPending() noexcept {
    sigset_t pending{};
    return ::sigpending(&pending) == 0 && ::sigismember(&pending, SIGPIPE) == 1;
  }

  sigset_t pipeSignal_{};
  sigset_t previous_{};
  bool wasPending_ = false;
};

}  // namespace velum
