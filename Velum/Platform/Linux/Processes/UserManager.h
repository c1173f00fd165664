#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace velum {

/// A transient unit that holds processes which the service manager did not start itself.
struct TransientScope {
  std::string name;  ///< With the suffix ".scope".
  std::string description;
  pid_t process = 0;  ///< Moved into it.
};

/// Asks the user's service manager to make the scope and waits until the process is in it. The
/// manager is never started for this. Nothing on success, else why not, for people; also when
/// `timeout` passes first. Blocks; any thread.
std::optional<std::string> startScope(const TransientScope& scope,
                                      std::chrono::microseconds timeout);

}  // namespace velum
