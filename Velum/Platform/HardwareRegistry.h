#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace velum {

/// How a call into the registry ended; 0 is success. The numbers stand in log records.
using KernelStatus = std::int32_t;
inline constexpr KernelStatus kernSuccess = 0;
inline constexpr KernelStatus kernFailure = 5;

/// A property of a type that nobody here reads.
struct RegistryOther {};

/// What an entry says under a key: nothing, a text, bytes, or something else.
using RegistryProperty =
    std::variant<std::monostate, std::string, std::vector<std::uint8_t>, RegistryOther>;

class RegistryEntry;
using RegistryEntryPointer = std::shared_ptr<const RegistryEntry>;

/// An entry on the way to another one; `entry` is set exactly when `status` is success.
struct RegistryParent {
  KernelStatus status = kernSuccess;
  RegistryEntryPointer entry = {};
};

/// A device or service, as the system lists it. Thread-safe.
class RegistryEntry {
 public:
  RegistryEntry() = default;
  RegistryEntry(const RegistryEntry&) = delete;
  RegistryEntry& operator=(const RegistryEntry&) = delete;
  virtual ~RegistryEntry() = default;

  virtual RegistryProperty property(std::string_view key) const = 0;
  /// The entry above this one in the tree named `plane`.
  virtual RegistryParent parentEntry(std::string_view plane) const = 0;
};

/// Which services are looked for.
struct RegistryMatching {
  std::string className;
  /// Only those that have this property, and have it true.
  std::optional<std::string> trueProperty = {};
};

struct RegistryServices {
  KernelStatus status = kernSuccess;
  std::vector<RegistryEntryPointer> entries = {};  ///< Of a failed search: empty.
};

struct OSVersion {
  int majorVersion = 0;
  int minorVersion = 0;
  int patchVersion = 0;

  bool operator==(const OSVersion&) const = default;
};

/// What the system knows of the machine. Every call reads afresh; nothing throws but
/// std::bad_alloc. Thread-safe.
///
/// Linux knows two services, as far as this process may read them:
///   - "IOPlatformExpertDevice" with "IOPlatformSerialNumber": from the firmware's tables (DMI, for
///     root alone) or the device tree. Where neither can be read there is no such service, so that
///     ordinary users' programs find none without an error. Texts that vendors forgot to fill in
///     ("To Be Filled By O.E.M.") are no serial numbers: then the property is missing.
///   - "IOEthernetInterface" with "IOPrimaryInterface": the Ethernet or wireless interface that the
///     default route uses, IPv4's before IPv6's; tunnels are passed over, and of bonds, bridges and
///     VLANs it is the interface of the hardware below. "IOMACAddress" of its parent is the
///     address it uses now.
class HardwareRegistry {
 public:
  HardwareRegistry() = default;
  HardwareRegistry(const HardwareRegistry&) = delete;
  HardwareRegistry& operator=(const HardwareRegistry&) = delete;
  virtual ~HardwareRegistry() = default;

  /// The machine's own. Never destroyed.
  static HardwareRegistry& shared();

  /// A search for services of a class; nothing when the system can't make one.
  virtual std::optional<RegistryMatching> serviceMatching(std::string_view className) = 0;
  /// The first service found; null when there is none.
  virtual RegistryEntryPointer matchingService(const RegistryMatching& matching) = 0;
  virtual RegistryServices matchingServices(const RegistryMatching& matching) = 0;

  /// The processor's number, 0x0100000C (64-bit ARM), 0x01000007 (x86-64) or another one; 0 when
  /// it is not known.
  virtual std::uint32_t cpuType() = 0;
  /// The bytes that name the model, up to a NUL if they hold one. Empty when it is not known, on
  /// Linux also when the vendor forgot to fill it in.
  virtual std::string hardwareModel() = 0;
  /// Linux: the distribution's version; a distribution without versions has its kernel's.
  virtual OSVersion osVersion() = 0;
  /// The path of the tool that lists system extensions; nothing where it is not installed.
  virtual std::optional<std::string> systemExtensionsTool() = 0;
};

}  // namespace velum
