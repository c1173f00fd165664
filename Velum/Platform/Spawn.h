#pragma once

#include <sys/types.h>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace velum {

/// What a new process is given. Everything that is not named here it does not get: it starts with
/// default signal handlers, an empty signal mask and no other descriptor of this process.
struct SpawnOptions {
  /// Stands for /dev/null among `standardStreams`.
  static constexpr int nullDevice = -1;
  /// The number under which the new process finds `extraDescriptor`.
  static constexpr int extraDescriptorNumber = 3;

  /// Path of the program; no search in PATH. A relative path counts from `directory`.
  std::string executable;
  /// The whole argument vector, the program's name first.
  std::vector<std::string> arguments;
  /// NAME=value each; this process's own where absent.
  std::optional<std::vector<std::string>> environment;
  /// Working directory; this process's own where empty.
  std::string directory;
  /// Descriptors of this process for standard input, output and error. They stay the caller's.
  std::array<int, 3> standardStreams{nullDevice, nullDevice, nullDevice};
  /// One more descriptor; it stays the caller's.
  std::optional<int> extraDescriptor;
  /// Leads a session of its own, so that it outlives this one's terminal.
  bool newSession = false;
};

/// Starts a program and returns its process id; the caller owes it a wait(2). Throws SystemError
/// with the code of the call that failed, the exec included: a program that is missing, not
/// executable or has no interpreter never shows up as a process. Thread-safe.
pid_t spawn(const SpawnOptions& options);

/// What a child is to find as its standard stream `number` (0 to 2) when it shall be this
/// process's own: that descriptor, or the null device where this process has closed the stream and
/// the number stands for nothing, or for a descriptor that is not meant to be inherited.
int inheritedStream(int number) noexcept;

/// This process's environment as `SpawnOptions::environment` wants it, without the variables
/// `names`. Not to be mixed with setenv(3) on other threads.
std::vector<std::string> environmentWithout(const std::vector<std::string>& names);

}  // namespace velum
