#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/RawValue.h"
#include "Velum/Platform/HardwareRegistry.h"

namespace velum {

/// One system extension that is active.
struct SystemExtensionInfo {
  std::string bundleID;  ///< Without the version that stands behind it in the listing.
  std::string teamID;    ///< The developer's team; may be empty.
  bool enabled = false;

  bool operator==(const SystemExtensionInfo&) const = default;
};

/// What machine this is. Any thread; nothing throws but std::bad_alloc. What can't be found out has
/// a fixed value in its place, and where that is unusual, an error in the log.
class SystemInfo {
 public:
  enum class CPUType : std::uint8_t { unknown, arm64, x86_64 };

  SystemInfo() = delete;

  /// The machine's serial number, "NOSERIALNUMBER" where it can't be read (on Linux root alone may
  /// read it, as a rule). Read once per process.
  static const std::string& serialNumber();
  /// The address of the primary Ethernet interface, twelve lower-case hexadecimal digits. Read once
  /// per process, also when there was none.
  static const std::optional<std::string>& mac();

  static CPUType getCPUType(HardwareRegistry& registry = HardwareRegistry::shared());
  /// What the maker calls the model, "MacBookPro18,3"; may be empty.
  static std::string getHardwareModel(HardwareRegistry& registry = HardwareRegistry::shared());
  /// Always three numbers: "14.2.0".
  static std::string getOSVersion(HardwareRegistry& registry = HardwareRegistry::shared());
  /// In the order of the system's listing. Runs a tool and waits for it.
  static std::vector<SystemExtensionInfo> getActiveSystemExtensions(
      HardwareRegistry& registry = HardwareRegistry::shared());

  /// What `serialNumber` and `mac` keep, read afresh.
  static std::string readSerialNumber(HardwareRegistry& registry);
  static std::optional<std::string> readMac(HardwareRegistry& registry);
  /// The active extensions of a listing: a row has six columns with tabs between them (enabled,
  /// active, team, bundle with version, name, state); all other lines are passed over.
  static std::vector<SystemExtensionInfo> parsedSystemExtensions(std::string_view listing);
};

template <>
struct RawValues<SystemInfo::CPUType> {
  static constexpr std::array<std::string_view, 3> texts{"unknown", "arm64", "x86_64"};
};

}  // namespace velum
