#include "Velum/Files/CheckedIo.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Velum/Base/SystemError.h"

namespace velum::checked {

namespace {

UniqueFd openAt(int folder, const char* name, const std::string& path, int flags, mode_t mode,
                std::string_view caller) {
  UniqueFd fd(retryInterrupted([&] { return ::openat(folder, name, flags | O_CLOEXEC, mode); }));
  if (!fd) {
    throw lastSystemError(fmt::format("{}: open ({}, {:#x}, {:#o})", caller, path, flags, mode));
  }
  return fd;
}

}  // namespace

UniqueFd open(const std::string& path, int flags, mode_t mode, std::string_view caller) {
  return openAt(AT_FDCWD, path.c_str(), path, flags, mode, caller);
}

UniqueFd openIn(int folder, const std::string& path, int flags, mode_t mode,
                std::string_view caller) {
  return openAt(folder, path.c_str() + path.rfind('/') + 1, path, flags, mode, caller);
}

std::size_t read(int fd, void* buffer, std::size_t size, std::string_view caller) {
  const ssize_t got = retryInterrupted([&] { return ::read(fd, buffer, size); });
  if (got < 0) throw lastSystemError(fmt::format("{}: read ({}, {})", caller, fd, size));
  return static_cast<std::size_t>(got);
}

void write(int fd, const void* bytes, std::size_t size, std::string_view caller) {
  const auto* next = static_cast<const char*>(bytes);
  for (std::size_t left = size; left > 0;) {
    const ssize_t written = retryInterrupted([&] { return ::write(fd, next, left); });
    if (written < 0) throw lastSystemError(fmt::format("{}: write ({}, {})", caller, fd, left));
    next += written;
    left -= static_cast<std::size_t>(written);
  }
}

std::int64_t lseek(int fd, std::int64_t offset, int whence, std::string_view caller) {
  const off_t position = ::lseek(fd, offset, whence);
  if (position == -1) {
    throw lastSystemError(fmt::format("{}: lseek ({}, {}, {})", caller, fd, offset, whence));
  }
  return position;
}

std::int64_t fileSize(const std::string& path, std::string_view caller) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw lastSystemError(fmt::format("{}: stat ({})", caller, path));
  }
  return status.st_size;
}

}  // namespace velum::checked
