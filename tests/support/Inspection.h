#pragma once

#include <sys/socket.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>

#include "tests/support/TemporaryFolder.h"

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

/// Descriptors that a child must not share: what its parent reads, or whose lock it holds. (Pairs
/// of sockets by which a library of the parent's wakes its own threads harm nobody.)
inline std::multiset<std::string> descriptorsNotToShare() {
  std::multiset<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::string target = std::filesystem::read_symlink(entry.path(), error);
    const std::string number = entry.path().filename();
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    auto* const generic = reinterpret_cast<sockaddr*>(&own);  // NOLINT: as sockets want it
    const bool isSocket =
        ::getsockname(std::stoi(number), generic, &size) == 0 && own.ss_family != AF_UNIX;
    const bool isLocked =
        readFile("/proc/self/fdinfo/" + number).find("\nlock:") != std::string::npos;
    if (isSocket || isLocked || target.starts_with("anon_inode:inotify")) found.insert(target);
  }
  return found;
}

/// Whether that thread of this process sleeps.
inline bool isAsleep(std::uint32_t thread) {
  return readFile("/proc/self/task/" + std::to_string(thread) + "/stat").find(") S ") !=
         std::string::npos;
}

}  // namespace velum::test
