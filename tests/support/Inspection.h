#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>

namespace velum::test {

/// The permissions of a file, or of a link itself; -1 when there is none.
inline int modeOf(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777U) : -1;
}

/// How many descriptors this process has.
inline std::ptrdiff_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace velum::test
