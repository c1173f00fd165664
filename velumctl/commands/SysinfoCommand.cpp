#include <fmt/format.h>
#include <fmt/ostream.h>

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/SystemInfo.h"
#include "velumctl/Commands.h"

namespace velumctl {
namespace {

using velum::SystemInfo;
using Extensions = std::vector<velum::SystemExtensionInfo>;

void printJson(const Extensions& extensions) {
  auto list = nlohmann::ordered_json::array();
  for (const auto& extension : extensions) {
    list.push_back({{"bundle_id", extension.bundleID},
                    {"team_id", extension.teamID},
                    {"enabled", extension.enabled}});
  }
  nlohmann::ordered_json info;
  info["serial_number"] = SystemInfo::serialNumber();
  info["mac"] = nullptr;
  if (const auto& mac = SystemInfo::mac()) info["mac"] = *mac;
  info["cpu_type"] = velum::rawValue(SystemInfo::getCPUType());
  info["model"] = SystemInfo::getHardwareModel();
  info["os_version"] = SystemInfo::getOSVersion();
  info["system_extensions"] = std::move(list);
  std::cout << info.dump() << '\n';
}

void printLine(std::string_view title, std::string_view value) {
  fmt::print(std::cout, "{:<19}{}\n", title, value.empty() ? "unknown" : value);
}

void printText(const Extensions& extensions) {
  printLine("Serial number:", SystemInfo::serialNumber());
  printLine("MAC address:", SystemInfo::mac().value_or("none"));
  printLine("Processor:", velum::rawValue(SystemInfo::getCPUType()));
  printLine("Model:", SystemInfo::getHardwareModel());
  printLine("System version:", SystemInfo::getOSVersion());
  if (extensions.empty()) printLine("System extensions:", "none active");
  for (const auto& extension : extensions) {
    printLine("System extension:", fmt::format("{} of team {}, {}", extension.bundleID,
                                               extension.teamID.empty() ? "?" : extension.teamID,
                                               extension.enabled ? "enabled" : "disabled"));
  }
}

}  // namespace

void addSysinfo(CLI::App& app) {
  auto asJson = std::make_shared<bool>(false);
  CLI::App& sysinfo =
      *app.add_subcommand("sysinfo", "Show what the application knows of this machine");
  sysinfo.add_flag("--json", *asJson, "Print one object for programs");
  sysinfo.footer(
      "On Linux only root may read the serial number, as a rule; others see NOSERIALNUMBER.\n\n"
      "Examples:\n"
      "  velumctl sysinfo\n"
      "  velumctl sysinfo --json | jq -r .mac");
  sysinfo.callback([asJson] {
    const Extensions extensions = SystemInfo::getActiveSystemExtensions();
    *asJson ? printJson(extensions) : printText(extensions);
  });
}

}  // namespace velumctl
