#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

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

}  // namespace velum
