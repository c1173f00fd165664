#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Spawn.h"
#include "tests/support/Waiting.h"

namespace velum::test {

/// A process id that is nobody's, and that is safe to signal by mistake (0 and -1 are not).
constexpr pid_t noProcess = std::numeric_limits<pid_t>::max();

/// Waits until `descriptor` is readable; false when the deadline passed.
inline bool isReadable(int descriptor, std::chrono::milliseconds timeout = deadline) {
  pollfd state{descriptor, POLLIN, 0};
  return retryInterrupted([&] { return ::poll(&state, 1, static_cast<int>(timeout.count())); }) ==
         1;
}

/// Waits until the process has ended, reaped or not.
inline bool hasEnded(pid_t pid, std::chrono::milliseconds timeout = deadline) {
  return isReadable(exitDescriptor(pid).get(), timeout);
}

/// The exit status of a child, 128 and the number for one that a signal ended; nothing when it
/// did not end in time.
inline std::optional<int> exitStatus(pid_t child) {
  int status = 0;
  if (!hasEnded(child) || retryInterrupted([&] { return ::waitpid(child, &status, 0); }) != child) {
    return std::nullopt;
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Adopts what the processes of this test leave behind, and ends all of it with the test.
class Family {
 public:
  Family() { ::prctl(PR_SET_CHILD_SUBREAPER, 1); }
  Family(const Family&) = delete;
  Family& operator=(const Family&) = delete;
  ~Family() {
    // A child that ends hands its own children on to us.
    for (auto left = children(); !left.empty(); left = children()) {
      for (const pid_t child : left) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
      }
    }
  }

  /// The children of this process, whichever thread started them, ended ones included.
  static std::vector<pid_t> children() {
    std::vector<pid_t> pids;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream file(thread.path() / "children");
      for (pid_t pid = 0; file >> pid;) pids.push_back(pid);
    }
    return pids;
  }
};

struct Pipe : PipeEnds {
  Pipe() : PipeEnds(makePipe()) {}
};

/// A FIFO that other processes write lines to. Reading waits for them.
class LineReader {
 public:
  explicit LineReader(const std::string& path) {
    if (::mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
    fifo_.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));  // also as its writer
  }

  /// The next line without its end; nothing when none came in time.
  std::optional<std::string> next(std::chrono::milliseconds timeout = deadline) {
    for (;;) {
      if (const std::size_t end = text_.find('\n'); end != std::string::npos) {
        std::string line = text_.substr(0, end);
        text_.erase(0, end + 1);
        return line;
      }
      std::array<char, 4096> buffer{};
      if (!isReadable(fifo_.get(), timeout)) return std::nullopt;
      const ssize_t size = ::read(fifo_.get(), buffer.data(), buffer.size());
      if (size > 0) text_.append(buffer.data(), static_cast<std::size_t>(size));
    }
  }

 private:
  UniqueFd fifo_;
  std::string text_;
};

/// Starts a shell; `script` is its program.
inline pid_t startShell(const std::string& script) {
  SpawnOptions options;
  options.executable.assign("/bin/sh");
  options.arguments = {"sh", "-c", script};
  return spawn(options);
}

}  // namespace velum::test
