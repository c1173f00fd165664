#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "tests/support/Environment.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {

/// Gives the test folders of its own, and until its end the environment of a headless session
/// without a bus: secrets go to the vault.
class SecretEnvironment {
 public:
  SecretEnvironment() { std::filesystem::permissions(folder_.path(), ownerOnly); }

  std::string folder() const { return folder_.path(); }
  std::string dataFolder() const { return folder_ / "data"; }
  /// Where the store keeps its files.
  std::string storeFolder() const { return dataFolder() + "/velum"; }

 private:
  static constexpr auto ownerOnly = std::filesystem::perms::owner_all;

  TemporaryFolder folder_;
  ScopedVariable home_{"HOME", folder_.path()};
  ScopedVariable data_{"XDG_DATA_HOME", dataFolder()};
  ScopedVariable runtime_{"XDG_RUNTIME_DIR", folder_.path()};
  ScopedVariable bus_{"DBUS_SESSION_BUS_ADDRESS", std::nullopt};
  ScopedVariable display_{"DISPLAY", std::nullopt};
  ScopedVariable wayland_{"WAYLAND_DISPLAY", std::nullopt};
  ScopedVariable credentials_{"CREDENTIALS_DIRECTORY", std::nullopt};
};

}  // namespace velum::test
