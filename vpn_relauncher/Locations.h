#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "Velum/Base/LazyValue.h"
#include "Velum/Platform/Directories.h"

namespace velum {

/// The programs that log, as their records and the system log name them.
inline constexpr std::string_view relauncherSubsystem = "com.quillon.mac.vpn.vpn_relauncher";
inline constexpr std::string_view tunnelAgentSubsystem = "com.quillon.mac.vpn.tunnel_agent";

/// Where the product's programs keep their log files: per user in the application group's
/// container, which the desktop application shares, and machine-wide for the privileged tool.
///
/// Each folder is looked up and created when it is first asked for, and then stays what it is for
/// the life of the process, a failure included. Failures are logged once. Thread-safe.
class Locations {
 public:
  static constexpr std::string_view applicationGroup = "R8K2ZP5WQN.com.quillon.mac";
  static constexpr std::string_view groupLogsSubpath = "Library/Logs/com.quillon.mac.vpn";
  static constexpr std::string_view sharedLogsSubpath = "Logs/com.quillon.mac.vpn";
  static constexpr std::string_view groupLogFileName = "Quillon VPN-group.log";
  static constexpr std::string_view sharedLogFileName = "Quillon VPN-shared.log";
  static constexpr mode_t sharedLogsPermissions = 0755;

  /// `directories` must outlive this object.
  explicit Locations(Directories& directories = Directories::shared())
      : directories_(directories) {}

  static Locations& shared();

  /// Nothing when the folder is neither there nor can be made.
  const std::optional<std::string>& appGroupDirectory();
  const std::optional<std::string>& groupLogsDirectory();
  const std::optional<std::string>& sharedLogsDirectory();

  /// Empty when the folder is unavailable.
  const std::string& groupLogFilePath();
  const std::string& sharedLogFilePath();

  /// Makes sure that something exists at `path`: what is there is left as it is, else a folder is
  /// made, with those above it, and given `permissions`. `title` names it in messages. Returns the
  /// path; nothing when that failed, which is logged.
  static std::optional<std::string> create(const std::string& path, std::string_view title,
                                           std::optional<mode_t> permissions = {});

 private:
  Directories& directories_;
  LazyValue<std::optional<std::string>> appGroupDirectory_;
  LazyValue<std::optional<std::string>> groupLogsDirectory_;
  LazyValue<std::optional<std::string>> sharedLogsDirectory_;
  LazyValue<std::string> groupLogFilePath_;
  LazyValue<std::string> sharedLogFilePath_;
};

}  // namespace velum
