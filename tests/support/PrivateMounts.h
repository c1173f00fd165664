#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

#include "Velum/Files/UniqueFd.h"

namespace velum::test {

namespace detail {
inline bool writeProc(const char* path, std::string_view text) {
  const UniqueFd fd(::open(path, O_WRONLY | O_CLOEXEC));
  return fd && ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}
}  // namespace detail

/// Gives the calling process (a child made for it) mounts nobody else sees. A normal user becomes
/// root of a user namespace for it. False where that is not permitted: skip the test.
inline bool enterPrivateMounts() {
  if (::unshare(CLONE_NEWNS) != 0) {
    const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(::getegid()) + " 1";
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    if (!detail::writeProc("/proc/self/setgroups", "deny") ||
        !detail::writeProc("/proc/self/uid_map", user) ||
        !detail::writeProc("/proc/self/gid_map", group)) {
      return false;
    }
  }
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Mounts an empty file system in memory; `options` such as "size=64k".
inline void mountMemory(const std::string& path, const std::string& options) {
  if (::mount("none", path.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), "mount " + path);
  }
}

}  // namespace velum::test
