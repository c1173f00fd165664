#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Spawn.h"

namespace velum {

/// Asked about ten times a second while a tool runs, on the thread that waits for it, with the
/// tool's process id; false ends the tool. Must not throw.
using KeepRunning = std::function<bool(pid_t tool)>;

/// Reads once what a tool has written, at most `limit` bytes; how many there were, 0 at the end.
using ReadOutput = std::function<std::size_t(std::size_t limit)>;

/// What the tool at `path` is started with: its name and `arguments`, a working directory or this
/// process's own, a session of its own and /dev/null for its streams. Without a terminal it can't
/// wait for somebody's password there. Throws std::filesystem::filesystem_error.
SpawnOptions toolOptions(const std::string& path, const std::vector<std::string>& arguments,
                         const std::optional<std::string>& directory);

/// A command-line tool that one thread waits for. Given up before its end, it is killed with all
/// that it started, and leaves no zombie.
class Tool {
 public:
  /// Starts it; `options` must ask for a session of its own. Throws SystemError.
  explicit Tool(const SpawnOptions& options);

  pid_t pid() const noexcept { return child_.pid; }

  /// Blocks until the tool has ended and returns its wait(2) status. Meanwhile calls `readOutput`
  /// whenever `output` (-1 for none) is readable. All that the tool wrote until its end is read.
  /// Other processes, which it left behind, may hold its output for ever: they are listened to for
  /// 100 ms. What `readOutput` throws ends the tool. Call once.
  ///
  /// One that `keepRunning` ends gets SIGTERM, and two seconds later SIGKILL; so do the processes
  /// that it started, unless they left its process group.
  int wait(int output, const ReadOutput& readOutput, const KeepRunning& keepRunning);

 private:
  struct Child {
    explicit Child(pid_t started) noexcept : pid(started) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();
    void signal(int number) const noexcept;

    pid_t pid;
    bool isReaped = false;
  };

  Child child_;
  UniqueFd exit_;
};

}  // namespace velum
