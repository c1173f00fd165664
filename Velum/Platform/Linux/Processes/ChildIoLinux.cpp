#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "Velum/Base/SystemError.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Linux/Processes/PipeSignal.h"

namespace velum {
namespace {

UniqueFd aboveStandardStreams(UniqueFd fd) {
  if (fd.get() > STDERR_FILENO) return fd;
  UniqueFd copy(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (!copy) throw lastSystemError("makePipe, fcntl (" + std::to_string(fd.get()) + ")");
  return copy;
}

}  // namespace

PipeEnds makePipe() {
  constexpr int capacity = 1 << 18;
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
  if (!process && errno == ESRCH) return makePipe().reader;  // at its end, which is readable too
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

void provideMemory(char* begin, std::size_t size) noexcept {
  static const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* first = begin;
  if (std::align(pageSize, pageSize, first, size) == nullptr) return;
  // Kernels before 5.14 don't know it.
  static_cast<void>(::madvise(first, size / pageSize * pageSize, MADV_POPULATE_WRITE));
}

std::uint64_t bytesReadBy(pid_t process) {
  std::ifstream counters("/proc/" + std::to_string(process) + "/io");
  std::string name;
  std::uint64_t count = 0;
  return counters >> name >> count && name == "rchar:" ? count : 0;
}

}  // namespace velum
