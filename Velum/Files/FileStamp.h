#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>

#include "Velum/Files/FileIdentity.h"

namespace velum {

/// What tells one content of a file that is replaced, or written to, from another. Two contents of
/// one size that come within a tick of the kernel's clock (4 ms) may look the same, if the second
/// one's file has the inode of the first, or is the first. A default one stands for no file.
struct FileStamp {
  FileIdentity file;
  std::int64_t size = 0;
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;

  bool operator==(const FileStamp&) const = default;

  /// Of what the path itself names; nothing when that can't be seen. One system call.
  static std::optional<FileStamp> ofPath(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0) return of(status);
    return errno == ENOENT ? std::optional(FileStamp{}) : std::nullopt;
  }
  static std::optional<FileStamp> ofFile(int file) {
    struct stat status {};
    return ::fstat(file, &status) == 0 ? std::optional(of(status)) : std::nullopt;
  }

 private:
  static FileStamp of(const struct stat& status) noexcept {
    return {.file = FileIdentity::of(status),
            .size = status.st_size,
            .seconds = status.st_mtim.tv_sec,
            .nanoseconds = status.st_mtim.tv_nsec};
  }
};

}  // namespace velum
