#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <array>
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Files/UniqueFd.h"

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

/// Whether there is a process with that number, an ended one included that nobody reaped. Needs
/// neither a descriptor nor a permission.
bool hasProcess(pid_t pid) noexcept;

/// The user whose rights the process has; nothing when that can't be read.
std::optional<uid_t> effectiveUserOf(pid_t pid);

/// False where no service manager runs the machine: then control groups say nothing.
bool hasServiceManager();

/// The control group of a process as the service manager sees it; nothing where everything is in
/// the root, or where the machine has no such manager.
std::optional<std::string> controlGroupOf(pid_t pid);
/// The same, from the text of /proc/PID/cgroup.
std::optional<std::string> controlGroup(std::string_view text);

/// True when `pid` is the service manager of a user's session.
bool isUserManager(pid_t pid);

/// What a look at all processes needs, kept open from one look to the next: that the machine has
/// no descriptor left, or is busy, then takes nothing away and costs nothing. One thread.
class ProcessList {
 public:
  /// Opens what is not open yet; the error's code where that fails (ENOENT without /proc).
  int open();

  /// The number of every process, kernel threads left out where that is cheap to know. In
  /// ascending order. Empty where there is no /proc.
  std::vector<pid_t> ids();

  /// The path of the program that a process runs, until the next call; nothing for one that ended,
  /// for a kernel thread and where this user may not know. Costs about 1 us.
  std::optional<std::string_view> executableOf(pid_t pid);

 private:
  struct Closer {
    void operator()(DIR* folder) const noexcept { ::closedir(folder); }
  };

  void openKernelThreads();
  std::vector<pid_t> kernelThreads() const;

  std::unique_ptr<DIR, Closer> folder_;
  UniqueFd kernelThreads_;   // their list, where they have one
  unsigned generation_ = 0;  // of the process: a forked child would share our place in the folder
  std::array<char, PATH_MAX> target_{};
};

}  // namespace velum
