#include "Velum/Platform/Linux/Machine/HardwareRegistryLinux.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <system_error>
#include <utility>

#include "Velum/Base/LazyValue.h"
#include "Velum/Base/String.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/Platform/Linux/Machine/PrimaryInterface.h"

namespace velum {
namespace {

constexpr std::size_t largestFile = 65'536;

/// Firmware pads its texts with blanks, and ends those of the device tree with a NUL.
std::string firmwareText(std::string_view text) {
  return std::string(trimmed(text.substr(0, text.find('\0'))));
}

/// "12345", "0123456789": what was typed to type something.
bool isCount(std::string_view text) {
  constexpr std::size_t shortest = 5;
  const auto isNext = [](char a, char b) { return b == a + 1 || (a == '9' && b == '0'); };
  const auto isOther = [&](char a, char b) { return !isNext(a, b); };
  return text.size() >= shortest && (text.front() == '0' || text.front() == '1') &&
         std::ranges::adjacent_find(text, isOther) == text.end();
}

/// True for what stands in the firmware of machines whose vendor did not fill it in. Such a text
/// is the same on thousands of machines.
bool isPlaceholder(std::string_view text) {
  constexpr std::array<std::string_view, 32> placeholders{"Default",
                                                          "Default string",
                                                          "Empty",
                                                          "INVALID",
                                                          "N/A",
                                                          "NA",
                                                          "Not Applicable",
                                                          "Not Available",
                                                          "Not Present",
                                                          "Not Provided",
                                                          "Not Set",
                                                          "Not Specified",
                                                          "None",
                                                          "Null",
                                                          "NoSerialNumber",
                                                          "O.E.M.",
                                                          "OEM",
                                                          "S/N",
                                                          "SN",
                                                          "Serial",
                                                          "Serial Number",
                                                          "SerialNumber",
                                                          "Serial No.",
                                                          "System Manufacturer",
                                                          "System Name",
                                                          "System Product Name",
                                                          "System Serial Number",
                                                          "SystemSerialNumb",
                                                          "SYSTEM_SERIAL_NUMBER",
                                                          "Undefined",
                                                          "Unknown",
                                                          "Unspecified"};
  constexpr std::string_view toBeFilled = "To be filled";  // "by O.E.M.", and cut anywhere
  const auto isText = [text](std::string_view other) { return equalsIgnoringCase(text, other); };
  // Empty, or "0000", "xxxx", "....".
  return text.empty() || text.find_first_not_of(text.front()) == std::string_view::npos ||
         isCount(text) || equalsIgnoringCase(text.substr(0, toBeFilled.size()), toBeFilled) ||
         std::ranges::any_of(placeholders, isText);
}

/// The numbers at the start of "6.1.0-13-amd64", at most three; nothing when it begins with none.
std::optional<OSVersion> parsedVersion(std::string_view text) {
  OSVersion version;
  const std::array<int*, 3> numbers{&version.majorVersion, &version.minorVersion,
                                    &version.patchVersion};
  for (int* const number : numbers) {
    const bool isFirst = number == numbers.front();
    if (!isFirst) {
      if (!text.starts_with('.')) break;
      text.remove_prefix(1);
    }
    const bool isDigit = !text.empty() && text.front() >= '0' && text.front() <= '9';
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    if (!isDigit || error != std::errc()) return isFirst ? std::nullopt : std::optional(version);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  }
  return version;
}

/// The value of VERSION_ID in an os-release file, which shells can read too: the last one counts,
/// quotes around it do not.
std::string versionId(std::string_view release) {
  constexpr std::string_view key = "VERSION_ID=";
  std::string_view value;
  while (!release.empty()) {
    const std::string_view line = release.substr(0, release.find('\n'));
    release.remove_prefix(std::min(line.size() + 1, release.size()));
    if (line.starts_with(key)) value = line.substr(key.size());
  }
  std::string text(trimmed(value));
  std::erase_if(text, [](char c) { return c == '"' || c == '\''; });
  return text;
}

}  // namespace

HardwareRegistry& HardwareRegistry::shared() {
  static constinit LazyStatic<HardwareRegistryLinux> instance;
  return instance.get([] { return HardwareRegistryLinux(); });
}

std::optional<std::string> HardwareRegistryLinux::text(const char* path) const {
  const auto content = readRegularFile(root_ + path, largestFile);
  if (!content) return std::nullopt;
  return firmwareText(*content);
}

std::optional<std::string> HardwareRegistryLinux::firstText(const char* path,
                                                            const char* otherwise) const {
  auto found = text(path);
  return found ? found : text(otherwise);
}

std::variant<std::string, SerialNumberFailure> HardwareRegistryLinux::serialNumber() {
  const auto serial =
      firstText("/sys/class/dmi/id/product_serial", "/sys/firmware/devicetree/base/serial-number");
  if (!serial) return SerialNumberFailure::noDevice;  // or not for this user's eyes
  if (isPlaceholder(*serial)) return SerialNumberFailure::missing;
  return repairedUtf8(*serial);
}

std::variant<std::vector<EthernetInterface>, EthernetFailure>
HardwareRegistryLinux::primaryEthernetInterfaces() {
  std::vector<EthernetInterface> interfaces;
  if (const auto interface = primaryEthernetInterface(root_)) {
    interfaces.push_back({.address = hardwareAddress(root_, *interface)});
  }
  return interfaces;
}

std::uint32_t HardwareRegistryLinux::cpuTypeOf(std::string_view machine) noexcept {
  constexpr std::uint32_t x86 = 0x01000007;
  constexpr std::uint32_t arm = 0x0100000C;
  if (machine == "x86_64") return x86;
  return machine == "aarch64" ? arm : 0;
}

std::uint32_t HardwareRegistryLinux::cpuType() {
  utsname names{};
  if (::uname(&names) != 0) return 0;
  return cpuTypeOf(&names.machine[0]);
}

std::string HardwareRegistryLinux::hardwareModel() {
  auto model = firstText("/sys/class/dmi/id/product_name", "/sys/firmware/devicetree/base/model");
  return !model || isPlaceholder(*model) ? std::string() : *std::move(model);
}

OSVersion HardwareRegistryLinux::osVersion() {
  const auto release = firstText("/etc/os-release", "/usr/lib/os-release");
  if (const auto version = parsedVersion(versionId(release.value_or("")))) return *version;
  const auto kernel = text("/proc/sys/kernel/osrelease");
  return parsedVersion(kernel.value_or("")).value_or(OSVersion());
}

std::optional<std::string> HardwareRegistryLinux::systemExtensionsTool() {
  std::string path = root_ + "/usr/bin/systemextensionsctl";
  if (::access(path.c_str(), X_OK) != 0) return std::nullopt;
  return path;
}

}  // namespace velum
