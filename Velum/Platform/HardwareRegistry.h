#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace velum {

/// How a call into the registry ended; 0 is success. The numbers stand in log records.
using KernelStatus = std::int32_t;
inline constexpr KernelStatus kernSuccess = 0;
inline constexpr KernelStatus kernFailure = 5;

/// Why there is no serial number.
enum class SerialNumberFailure : std::uint8_t {
  noDevice,  ///< Nothing that could have one is known, or may be read by this process.
  missing,   ///< The device has none.
  notText,   ///< What it has is no text.
};

/// An Ethernet interface, wireless ones included.
struct EthernetInterface {
  /// How the way to its controller, which has the address, ended.
  KernelStatus status = kernSuccess;
  /// The address it uses now; nothing when it has none or its controller is out of reach.
  std::optional<std::vector<std::uint8_t>> address = {};
};

/// Why there is no list of interfaces.
struct EthernetFailure {
  KernelStatus status = kernFailure;
  bool isOfSearch = true;  ///< False: the system could not even begin one.
};

struct OSVersion {
  int majorVersion = 0;
  int minorVersion = 0;
  int patchVersion = 0;

  bool operator==(const OSVersion&) const = default;
};

/// What the system knows of the machine. Every call reads afresh; nothing throws but
/// std::bad_alloc. Thread-safe.
class HardwareRegistry {
 public:
  HardwareRegistry() = default;
  HardwareRegistry(const HardwareRegistry&) = delete;
  HardwareRegistry& operator=(const HardwareRegistry&) = delete;
  virtual ~HardwareRegistry() = default;

  /// The machine's own. Never destroyed.
  static HardwareRegistry& shared();

  virtual std::variant<std::string, SerialNumberFailure> serialNumber() = 0;

  /// The interfaces that lead to the outside, the hardware's own; none when there is no such route.
  virtual std::variant<std::vector<EthernetInterface>, EthernetFailure>
  primaryEthernetInterfaces() = 0;

  /// The processor's number, 0x0100000C (64-bit ARM), 0x01000007 (x86-64) or another one; 0 when
  /// it is not known.
  virtual std::uint32_t cpuType() = 0;
  /// The bytes that name the model, up to a NUL if they hold one. Empty when it is not known.
  virtual std::string hardwareModel() = 0;
  virtual OSVersion osVersion() = 0;
  /// The path of the tool that lists system extensions; nothing where it is not installed.
  virtual std::optional<std::string> systemExtensionsTool() = 0;
};

}  // namespace velum
