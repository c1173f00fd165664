#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Velum/Platform/HardwareRegistry.h"

namespace velum {

/// The registry made of the files that kernel, firmware and distribution provide.
class HardwareRegistryLinux final : public HardwareRegistry {
 public:
  /// `root` stands before every path; "" for this machine's.
  explicit HardwareRegistryLinux(std::string root = {}) : root_(std::move(root)) {}

  /// From the firmware's tables (DMI, for root alone) or the device tree. Where neither can be read
  /// there is no device, so that ordinary users' programs find none without an error. Texts that
  /// vendors forgot to fill in ("To Be Filled By O.E.M.") are no serial numbers.
  std::variant<std::string, SerialNumberFailure> serialNumber() override;
  /// The Ethernet or wireless interface that the default route uses, IPv4's before IPv6's; tunnels
  /// are passed over, and of bonds, bridges and VLANs it is the interface of the hardware below.
  std::variant<std::vector<EthernetInterface>, EthernetFailure> primaryEthernetInterfaces()
      override;
  std::uint32_t cpuType() override;
  /// Empty also when the vendor forgot to fill it in.
  std::string hardwareModel() override;
  /// The distribution's version; a distribution without versions has its kernel's.
  OSVersion osVersion() override;
  std::optional<std::string> systemExtensionsTool() override;

  /// The processor's number for the kernel's name of it, "x86_64" for instance; 0 for others.
  static std::uint32_t cpuTypeOf(std::string_view machine) noexcept;

 private:
  std::optional<std::string> text(const char* path) const;
  std::optional<std::string> firstText(const char* path, const char* otherwise) const;

  std::string root_;
};

}  // namespace velum
