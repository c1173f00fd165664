#include "tests/support/FileCallHooks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace velum::test {
std::function<void(const char* target)> onNaming;
std::function<void()> onRefusal;
}  // namespace velum::test

using velum::test::onNaming;
using velum::test::onRefusal;

// Stand before the C library's.
extern "C" int rename(const char* from, const char* to) noexcept {
  if (onNaming) onNaming(to);
  return static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}
extern "C" int linkat(int fromFolder, const char* from, int toFolder, const char* to,
                      int flags) noexcept {
  const bool isFree = ::access(to, F_OK) != 0;  // else it takes the name over
  if (onNaming && isFree && !std::filesystem::path(to).filename().string().starts_with('.'))
    onNaming(to);
  return static_cast<int>(::syscall(SYS_linkat, fromFolder, from, toFolder, to, flags));
}
extern "C" int flock(int fd, int operation) noexcept {
  const int result = static_cast<int>(::syscall(SYS_flock, fd, operation));
  if (result != 0 && errno == EWOULDBLOCK && onRefusal) {
    onRefusal();
    errno = EWOULDBLOCK;
  }
  return result;
}
