#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Spawn.h"
#include "tests/support/Processes.h"

namespace velum::test {

using Strings = std::vector<std::string>;

inline Strings operator+(Strings first, const Strings& more) {
  first.insert(first.end(), more.begin(), more.end());
  return first;
}

/// A running program and the other end of its output; killed when nobody waited for it.
class RunningProgram {
 public:
  /// Connected by a pipe to its standard output; standard error and input are /dev/null.
  static RunningProgram piped(const Strings& arguments) {
    Pipe pipe;
    SpawnOptions options;
    options.executable = arguments.at(0);
    options.arguments = arguments;
    options.standardStreams[1] = pipe.writer.get();
    return {spawn(options), std::move(pipe.reader)};
  }

  /// On a terminal of its own: 80 columns, 24 lines, which it leads a session on. In this
  /// process's environment with some variables changed: "NAME=value", or "NAME" to remove it.
  static RunningProgram onTerminal(const Strings& arguments, const Strings& environment) {
    Strings command{"/usr/bin/env"};
    for (const std::string& change : environment) {
      if (change.find('=') == std::string::npos) command = command + Strings{"-u", change};
    }
    std::ranges::copy_if(environment, std::back_inserter(command), [](const std::string& change) {
      return change.find('=') != std::string::npos;
    });
    command = command + arguments;
    std::vector<char*> pointers;
    for (std::string& argument : command) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    winsize size{.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (pid == 0) {
      ::signal(SIGINT, SIG_DFL);  // who runs the tests in the background ignores it
      ::execv(pointers[0], pointers.data());
      ::_exit(127);
    }
    ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
    return {pid, UniqueFd(terminal)};
  }

  RunningProgram(RunningProgram&& other) noexcept
      : pid_(std::exchange(other.pid_, -1)), fd_(std::move(other.fd_)) {}
  RunningProgram& operator=(RunningProgram&&) = delete;
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;
  ~RunningProgram() {
    if (pid_ <= 0) return;
    signal(SIGKILL);
    wait();
  }

  /// All output so far, once it contains `text` or the output is at its end.
  const std::string& readUntil(std::string_view text) {
    EXPECT_TRUE(hasPrinted(text, deadline) || isAtEnd_) << "no \"" << text << "\" in: " << output_;
    return output_;
  }
  /// True when the output so far, or what comes within `limit`, contains `text`.
  bool hasPrinted(std::string_view text, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (output_.find(text) == std::string::npos && std::chrono::steady_clock::now() < end) {
      if (!isReadable(fd_.get(), std::chrono::milliseconds(50))) continue;
      std::array<char, 65536> bytes{};
      const ssize_t got =
          retryInterrupted([&] { return ::read(fd_.get(), bytes.data(), bytes.size()); });
      isAtEnd_ = got <= 0;  // a terminal whose last user left gives EIO
      if (isAtEnd_) break;
      output_.append(bytes.data(), static_cast<std::size_t>(got));
    }
    return output_.find(text) != std::string::npos;
  }
  const std::string& readToEnd() { return readUntil("\x1F never printed \x1F"); }

  void type(std::string_view text) const {
    EXPECT_EQ(::write(fd_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  int pid() const { return pid_; }
  void signal(int number) const { ::kill(pid_, number); }
  void closeOutput() { fd_.reset(); }

  /// Its wait(2) status; `usage()` tells of it afterwards.
  int wait() {
    int status = -1;
    const pid_t pid = std::exchange(pid_, -1);
    retryInterrupted([&] { return ::wait4(pid, &status, 0, &usage_); });
    return status;
  }
  const rusage& usage() const { return usage_; }

 private:
  RunningProgram(pid_t pid, UniqueFd fd) : pid_(pid), fd_(std::move(fd)) {}

  pid_t pid_;
  UniqueFd fd_;
  std::string output_;
  bool isAtEnd_ = false;
  rusage usage_{};
};

}  // namespace velum::test
