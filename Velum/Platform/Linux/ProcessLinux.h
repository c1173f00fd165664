#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velum {

/// What /proc/PID/stat says of a process.
struct ProcessStatus {
  char state = '?';
  pid_t parent = 0;
  pid_t group = 0;
  pid_t session = 0;
  unsigned flags = 0;
  long threads = 0;
  std::uint64_t startTime = 0;  ///< In clock ticks since the system's start; names it with its id.

  /// False for a process that ended and waits for its parent. One whose first thread alone has
  /// left looks the same in `state` and is alive.
  bool isAlive() const noexcept;
  /// True for a copy that its parent made of itself and that never started a program of its own.
  bool isForkedCopy() const noexcept;
  bool isKernelThread() const noexcept;

  /// Reads the line of that process; nothing when there is none. Costs about 7 us.
  static std::optional<ProcessStatus> of(pid_t pid);
  static std::optional<ProcessStatus> parse(std::string_view line);
};

/// The path of the program that a process runs; nothing for one that ended, for a kernel thread
/// and where this user may not know. Costs about 2 us.
std::optional<std::string> executableOf(pid_t pid);

/// The control group of a process as the service manager sees it; nothing where everything is in
/// the root, or where the machine has no such manager.
std::optional<std::string> controlGroupOf(pid_t pid);
/// The same, from the text of /proc/PID/cgroup.
std::optional<std::string> controlGroup(std::string_view text);

/// True when `pid` is the service manager of a user's session.
bool isUserManager(pid_t pid);

/// The number of every process, kernel threads left out where that is cheap to know. In
/// ascending order.
std::vector<pid_t> processIds();

}  // namespace velum
