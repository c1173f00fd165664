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

  std::optional<RegistryMatching> serviceMatching(std::string_view className) override;
  RegistryEntryPointer matchingService(const RegistryMatching& matching) override;
  RegistryServices matchingServices(const RegistryMatching& matching) override;
  std::uint32_t cpuType() override;
  std::string hardwareModel() override;
  OSVersion osVersion() override;
  std::optional<std::string> systemExtensionsTool() override;

  /// The processor's number for the kernel's name of it, "x86_64" for instance; 0 for others.
  static std::uint32_t cpuTypeOf(std::string_view machine) noexcept;

 private:
  std::optional<std::string> text(const char* path) const;
  std::optional<std::string> firstText(const char* path, const char* otherwise) const;
  RegistryEntryPointer platformExpert() const;
  RegistryEntryPointer primaryEthernet() const;

  std::string root_;
};

}  // namespace velum
