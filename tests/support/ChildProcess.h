#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <new>

#include "Velum/Files/UniqueFd.h"

namespace velum::test {

/// A forked process that runs `body` and leaves with 0, with 1 when an assertion failed in it, or
/// with 77 when it called GTEST_SKIP. One that hangs is ended by SIGALRM after a minute. Killed and
/// reaped when nobody waited for it.
class ChildProcess {
 public:
  static constexpr int skipped = 77;

  explicit ChildProcess(const std::function<void()>& body) {
    flush();
    pid_ = ::fork();
    if (pid_ != 0) return;
    ::alarm(60);
    body();
    flush();
    ::_exit(::testing::Test::HasFailure() ? 1 : ::testing::Test::IsSkipped() ? skipped : 0);
  }
  ChildProcess(ChildProcess&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
  ChildProcess& operator=(ChildProcess&&) = delete;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess() {
    if (pid_ > 0) kill();
  }

  int pid() const { return pid_; }

  /// Its wait(2) status; -1 when there is no such child.
  int wait() {
    int status = -1;
    retryInterrupted([&] { return ::waitpid(std::exchange(pid_, -1), &status, 0); });
    return status;
  }
  int kill() {
    ::kill(pid_, SIGKILL);
    return wait();
  }

 private:
  static void flush() {
    static_cast<void>(std::fflush(stdout));
    static_cast<void>(std::fflush(stderr));
  }

  pid_t pid_ = -1;
};

/// A value in memory that a process has in common with those it forks.
template <class Value>
class SharedWithChild {
 public:
  SharedWithChild()
      : value_(new (::mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Value()) {}
  SharedWithChild(const SharedWithChild&) = delete;
  SharedWithChild& operator=(const SharedWithChild&) = delete;
  ~SharedWithChild() { ::munmap(value_, sizeof(Value)); }
  Value& operator*() const { return *value_; }
  Value* operator->() const { return value_; }

 private:
  Value* value_;
};

/// Runs `body` in a process of its own, for what can't be undone in this one; its failures and
/// skips become the test's.
inline void inChild(const std::function<void()>& body) {
  const int status = ChildProcess(body).wait();
  if (WIFEXITED(status) && WEXITSTATUS(status) == ChildProcess::skipped) {
    GTEST_SKIP() << "for the reason above";
  }
  EXPECT_EQ(status, 0) << "wait status of the process that ran the test";
}

}  // namespace velum::test
