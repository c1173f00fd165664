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

/// The address of the last interface decides.
std::optional<Bytes> getMACAddress(const std::vector<EthernetInterface>& interfaces) {
  std::optional<Bytes> address;
  for (const EthernetInterface& interface : interfaces) {
    if (interface.status == kernSuccess) {
      address = interface.address;
    } else {
      logError(site("GetMACAddress(_:)"), "IORegistryEntryGetParentEntry returned {}",
               interface.status);
    }
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
  auto found = registry.serialNumber();
  if (auto* const text = std::get_if<std::string>(&found)) return std::move(*text);
  const auto failure = std::get<SerialNumberFailure>(found);
  if (failure != SerialNumberFailure::noDevice) {
    logError(site("serialNumber"), "IORegistryEntryCreateCFProperty return {}.",
             failure == SerialNumberFailure::missing ? "nil" : "not string");
  }
  return std::string(noSerialNumber);
}

std::optional<std::string> SystemInfo::readMac(HardwareRegistry& registry) {
  const auto found = registry.primaryEthernetInterfaces();
  if (const auto* const failure = std::get_if<EthernetFailure>(&found)) {
    if (failure->isOfSearch) {
      logError(site("FindEthernetInterfaces(_:)"), "IOServiceGetMatchingServices returned {}",
               failure->status);
    }
    logError(site("mac"), "FindEthernetInterfaces returned 0x{:08x}",
             static_cast<std::uint32_t>(failure->status));
    return std::nullopt;
  }
  const auto address = getMACAddress(std::get<std::vector<EthernetInterface>>(found));
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
