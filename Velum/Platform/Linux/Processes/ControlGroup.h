#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velum {

/// The names that desktops give to the control groups of applications:
///   app[-<launcher>]-<identifier>-<random>.scope
///   app[-<launcher>]-<identifier>[@<random>].service
/// with "-" and other special bytes of the parts written as \xHH.

/// The application whose scope is named after the process `leader`, and that process alone is the
/// application: others in the scope are its children. `group` is a whole path.
std::optional<std::string> applicationOfScope(std::string_view group, pid_t leader);

/// The application that the service manager runs as this service. The process that the manager
/// itself started is the application.
std::optional<std::string> applicationOfService(std::string_view group);

/// "app-<identifier>-<leader>.scope".
std::string applicationScopeName(std::string_view identifier, pid_t leader);

/// The processes that a desktop may have given a control group of their own. One thread.
class DesktopGroups {
 public:
  /// Looks for the groups of the user's service manager where they usually are, and else among
  /// those of these processes, which costs about 7 us a process.
  void learn(const std::vector<pid_t>& processes);

  /// The processes whose control group may make them applications, in no order: those that scopes
  /// are named after, ended ones included, and the members of services. Empty where the user has
  /// no service manager; nothing when its groups can't be listed, and each process has to be asked.
  std::optional<std::vector<pid_t>> candidates();

 private:
  std::string folder_;  // of the service manager's groups; empty while it is not known
};

}  // namespace velum
