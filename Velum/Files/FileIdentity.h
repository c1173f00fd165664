#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <optional>
#include <string>

namespace velum {

/// Which file it is, by whatever names it goes, until the last of them and its last descriptor are
/// gone.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;

  bool operator==(const FileIdentity&) const = default;

  static FileIdentity of(const struct stat& status) noexcept {
    return {.device = status.st_dev, .inode = status.st_ino};
  }
  /// Of an open file. One system call, like the next two; nothing when it fails, which leaves why
  /// in errno.
  static std::optional<FileIdentity> ofFile(int file) noexcept {
    struct stat status {};
    return ::fstat(file, &status) == 0 ? std::optional(of(status)) : std::nullopt;
  }
  /// Of what a path leads to.
  static std::optional<FileIdentity> ofPath(const std::string& path) noexcept {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? std::optional(of(status)) : std::nullopt;
  }
  /// Of what itself has that name in an open folder (AT_FDCWD: that path), be it a link.
  static std::optional<FileIdentity> ofEntry(int folder, const char* name) noexcept {
    struct stat status {};
    return ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 ? std::optional(of(status))
                                                                      : std::nullopt;
  }
};

}  // namespace velum
