#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace bench {

/// A child process with its standard streams on /dev/null. Killed and reaped when destroyed.
class Process {
 public:
  /// Starts the program `arguments[0]`, a path. The child gets `inherited` as descriptor 3 (none
  /// when -1) and this process's environment. Throws SystemError.
  explicit Process(const std::vector<std::string>& arguments, int inherited = -1);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t id() const noexcept { return id_; }
  /// Kills and reaps it.
  void end() noexcept;
  /// Waits until it ends by itself; its wait(2) status.
  int wait() noexcept;

 private:
  pid_t id_ = -1;
};

/// Waits until `descriptor` can be read. Throws after ten seconds, naming what did not come.
void awaitReadable(int descriptor, const std::string& what);

/// Starts a program that says over VELUM_READY_FD when it is ready, and waits until it does so.
std::unique_ptr<Process> startReady(const std::vector<std::string>& arguments);

/// Gives the programs started from here on homes and folders of their own below `folder`, and no
/// session bus, so that they neither find nor leave anything in the user's.
void isolateEnvironment(const std::string& folder);

}  // namespace bench
