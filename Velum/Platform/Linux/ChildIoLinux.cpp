#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include "Velum/Platform/Posix/ChildIo.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

UniqueFd aboveStandardStreams(UniqueFd fd) {
  if (fd.get() > STDERR_FILENO) return fd;
  UniqueFd copy(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!copy) throw lastSystemError("makePipe, fcntl (" + std::to_string(fd.get()) + ")");
  return copy;
}

/// Takes the SIGPIPE of this thread's own writes away and leaves any other.
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

}  // namespace

PipeEnds makePipe() {
  constexpr int capacity = 1 << 20;
  std::array<int, 2> fds{};
  if (::pipe2(fds.data(), O_CLOEXEC) != 0) throw lastSystemError("makePipe, pipe2");
  UniqueFd reader(fds[0]);
  UniqueFd writer(fds[1]);
  // Refused to users whose pipes hold too much already; the usual size then has to do.
  static_cast<void>(::fcntl(writer.get(), F_SETPIPE_SZ, capacity));
  return {aboveStandardStreams(std::move(reader)), aboveStandardStreams(std::move(writer))};
}

std::size_t availableBytes(int reader) noexcept {
  int count = 0;
  return ::ioctl(reader, FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

ssize_t writeQuietly(int writer, std::string_view bytes) noexcept {
  const PipeSignalBlock block;
  return retryInterrupted([&] { return ::write(writer, bytes.data(), bytes.size()); });
}

UniqueFd exitDescriptor(pid_t child) {
  // Not through <sys/pidfd.h>: that header of glibc 2.36 is not usable from C++.
  UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U)));
  if (!process) {
    throw lastSystemError("exitDescriptor, pidfd_open (" + std::to_string(child) + ")");
  }
  return process;
}

int reapChild(pid_t child) noexcept {
  constexpr int lost = W_EXITCODE(255, 0);
  int status = 0;
  return retryInterrupted([&] { return ::waitpid(child, &status, 0); }) == child ? status : lost;
}

}  // namespace velum
