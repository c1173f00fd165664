#pragma once

#include <sys/file.h>

#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {

/// Holds the exclusive advisory lock of an open file against other processes. Where the file
/// system has no such locks, or the descriptor is -1, it holds nothing and the caller goes on.
/// The lock belongs to the open file description: a child that inherits the descriptor shares it.
class FileLock {
 public:
  explicit FileLock(int fd) noexcept : fd_(fd) {
    if (fd_ >= 0) retryInterrupted([fd] { return ::flock(fd, LOCK_EX); });
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock() {
    if (fd_ >= 0) ::flock(fd_, LOCK_UN);
  }

 private:
  int fd_;
};

}  // namespace velum
