#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "tests/support/ChildProcess.h"

namespace velum::test {

/// A system call that a gated process is about to make.
struct GatedCall {
  std::string name;
  std::string subject;      ///< The path or the descriptor's file; may be empty.
  std::vector<int> errors;  ///< What may be wrong with it, as errno values.

  bool isOneOf(std::initializer_list<const char*> names) const;
  std::string text() const { return name + " (" + subject + ")"; }
};

/// What is done to the call of that index, counted from 0 while the gate is armed.
struct Injection {
  static constexpr int kill = -1;  ///< SIGKILL for the process, instead of an errno.

  std::size_t index = SIZE_MAX;
  std::size_t error = 0;  ///< Index into the call's errors, which are taken in turn.
  bool kills = false;
};

/// Says of a call whether something holds for it.
using CallPredicate = std::function<bool(const GatedCall&)>;

/// What became of a gated process.
struct GatedRun {
  int status = -1;  ///< Of wait(2).
  bool isHung = false;
  std::vector<GatedCall> calls;
  std::optional<GatedCall> injected;
  int error = 0;  ///< What was injected: an errno or Injection::kill.
};

/// Lets the system calls of a forked process through one by one: those that touch files, memory
/// maps, sockets, processes and event sources are reported to this process (seccomp user
/// notification), which lets them happen, fail or kill the caller. Needs no privilege and no
/// tracing, so it works in containers and under the sanitizers; other calls run at full speed.
///
/// Threads and forked children of the process count as well; programs that they execute don't,
/// nor do calls of the dynamic loader for libraries.
class CallGate {
 public:
  CallGate();

  /// In the child: from now on its calls come to the gate, where only armed ones are counted.
  void enter();
  void arm(bool isArmed) noexcept { *isArmed_ = isArmed; }

  /// Forks `child`, which calls `enter`, and serves its calls until it ends or the time is up.
  /// Calls that are spared pass uncounted, as do those of other programs than `program`, by default
  /// the child's own.
  GatedRun run(const std::function<void()>& child, const Injection& injection,
               const CallPredicate& isSpared, const std::string& program);

  /// Whether this system has such a gate.
  static bool isSupported();

 private:
  class Supervisor;

  SharedWithChild<std::atomic<bool>> isArmed_;
  UniqueFd ours_;  // of the socket that brings the gate's descriptor here
  UniqueFd childs_;
};

}  // namespace velum::test
