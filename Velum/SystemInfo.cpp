#include "Velum/SystemInfo.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <utility>
#include <variant>

#include "Velum/Base/LazyValue.h"
#include "Velum/Base/String.h"
#include "Velum/Logger/Logger.h"
#include "Velum/SystemUtils.h"

namespace velum {
namespace {

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/SystemInfo", function, where};
}

constexpr std::string_view noSerialNumber = "NOSERIALNUMBER";
using Bytes = std::vector<std::uint8_t>;

/// The interface that the system calls its primary one; there may be several, or none.
RegistryServices findEthernetInterfaces(HardwareRegistry& registry) {
  auto matching = registry.serviceMatching("IOEthernetInterface");
  if (!matching) return {kernFailure};
  matching->trueProperty = "IOPrimaryInterface";
  RegistryServices services = registry.matchingServices(*matching);
  if (services.status != kernSuccess) {
    logError(site("FindEthernetInterfaces(_:)"), "IOServiceGetMatchingServices returned {}",
             services.status);
  }
  return services;
}

/// The address belongs to the controller, the interface's parent. The last interface decides.
std::optional<Bytes> getMACAddress(const RegistryServices& services) {
  std::optional<Bytes> address;
  for (const RegistryEntryPointer& service : services.entries) {
    const RegistryParent parent = service->parentEntry("IOService");
    if (parent.status != kernSuccess) {
      logError(site("GetMACAddress(_:)"), "IORegistryEntryGetParentEntry returned {}",
               parent.status);
      continue;
    }
    RegistryProperty property = parent.entry->property("IOMACAddress");
    address.reset();
    if (auto* const bytes = std::get_if<Bytes>(&property)) address = std::move(*bytes);
  }
  return address;
}

constexpr std::size_t columnCount = 6;

/// The columns of a line; nothing unless there are exactly six.
std::optional<std::array<std::string_view, columnCount>> columnsOf(std::string_view line) {
  if (std::count(line.begin(), line.end(), '\t') != columnCount - 1) return std::nullopt;
  std::array<std::string_view, columnCount> columns;
  for (std::string_view& column : columns) {
    column = line.substr(0, line.find('\t'));
    line.remove_prefix(std::min(column.size() + 1, line.size()));
  }
  return columns;
}

/// The text without every " (...)"; a group ends at its first closing parenthesis.
std::string withoutVersions(std::string_view text) {
  std::string result;
  for (;;) {
    const std::size_t start = text.find(" (");
    const std::size_t end = text.find(')', start == std::string_view::npos ? start : start + 2);
    if (end == std::string_view::npos) return result.append(text);
    result.append(text.substr(0, start));
    text.remove_prefix(end + 1);
  }
}

}  // namespace

const std::string& SystemInfo::serialNumber() {
  static constinit LazyStatic<std::string> text;
  return text.get([] { return readSerialNumber(HardwareRegistry::shared()); });
}

const std::optional<std::string>& SystemInfo::mac() {
  static constinit LazyStatic<std::optional<std::string>> text;
  return text.get([] { return readMac(HardwareRegistry::shared()); });
}

std::string SystemInfo::readSerialNumber(HardwareRegistry& registry) {
  const auto matching = registry.serviceMatching("IOPlatformExpertDevice");
  if (!matching) return std::string(noSerialNumber);
  const RegistryEntryPointer service = registry.matchingService(*matching);
  if (!service) return std::string(noSerialNumber);
  RegistryProperty property = service->property("IOPlatformSerialNumber");
  if (auto* const text = std::get_if<std::string>(&property)) return std::move(*text);
  const bool isMissing = std::holds_alternative<std::monostate>(property);
  logError(site("serialNumber"), "IORegistryEntryCreateCFProperty return {}.",
           isMissing ? "nil" : "not string");
  return std::string(noSerialNumber);
}

std::optional<std::string> SystemInfo::readMac(HardwareRegistry& registry) {
  const RegistryServices services = findEthernetInterfaces(registry);
  if (services.status != kernSuccess) {
    logError(site("mac"), "FindEthernetInterfaces returned 0x{:08x}",
             static_cast<std::uint32_t>(services.status));
    return std::nullopt;
  }
  const std::optional<Bytes> address = getMACAddress(services);
  if (!address) return std::nullopt;
  return hexText(std::string(address->begin(), address->end()));
}

SystemInfo::CPUType SystemInfo::getCPUType(HardwareRegistry& registry) {
  constexpr std::uint32_t arm = 0x0100000C;
  constexpr std::uint32_t x86 = 0x01000007;
  switch (registry.cpuType()) {
    case arm:
      return CPUType::arm64;
    case x86:
      return CPUType::x86_64;
    default:
      return CPUType::unknown;
  }
}

std::string SystemInfo::getHardwareModel(HardwareRegistry& registry) {
  const std::string bytes = registry.hardwareModel();
  return repairedUtf8(bytes.substr(0, bytes.find('\0')));
}

std::string SystemInfo::getOSVersion(HardwareRegistry& registry) {
  const OSVersion version = registry.osVersion();
  return fmt::format("{}.{}.{}", version.majorVersion, version.minorVersion, version.patchVersion);
}

std::vector<SystemExtensionInfo> SystemInfo::getActiveSystemExtensions(HardwareRegistry& registry) {
  const auto tool = registry.systemExtensionsTool();
  if (!tool) return {};
  const CliResult result = SystemUtil::cliUtil(*tool, {"list"}, std::nullopt, true);
  if (!result.output || !isValidUtf8(result.output->view())) return {};
  return parsedSystemExtensions(result.output->view());
}

std::vector<SystemExtensionInfo> SystemInfo::parsedSystemExtensions(std::string_view listing) {
  std::vector<SystemExtensionInfo> extensions;
  while (!listing.empty()) {
    const std::string_view line = listing.substr(0, listing.find('\n'));
    listing.remove_prefix(std::min(line.size() + 1, listing.size()));
    const auto columns = columnsOf(line);
    if (!columns) continue;
    const auto& [enabled, active, team, bundle, name, state] = *columns;
    if (active.empty()) continue;
    extensions.push_back({withoutVersions(bundle), std::string(team), !enabled.empty()});
  }
  return extensions;
}

}  // namespace velum
