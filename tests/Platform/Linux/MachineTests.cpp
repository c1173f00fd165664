// The facts of a machine as its files tell them, and the user's languages as the environment does.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Platform/Linux/Machine/HardwareRegistryLinux.h"
#include "Velum/Platform/Linux/Machine/LocaleLinux.h"
#include "Velum/Platform/Locale.h"
#include "Velum/SystemInfo.h"
#include "Velum/Telemetry.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Environment.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The files of another machine.
class LinuxMachine : public testing::Test {
 protected:
  void write(const std::string& path, std::string_view content) const {
    writeFile(root_.path() + path, content);
  }
  void remove(const std::string& path) const { std::filesystem::remove_all(root_.path() + path); }
  std::string serialNumber() { return SystemInfo::readSerialNumber(registry_); }
  std::optional<std::string> mac() { return SystemInfo::readMac(registry_); }

  /// Ethernet unless told otherwise; its address ends with `last`.
  void addInterface(const std::string& name, const std::string& last,
                    const std::vector<std::string>& files = {"device"},
                    const char* type = "1\n") const {
    const std::string folder = "/sys/class/net/" + name + '/';
    write(folder + "type", type);
    write(folder + "address", "02:fc:00:00:00:" + last + "\n");
    for (const std::string& file : files) write(folder + file, "");
  }
  /// Each route is "interface destination flags metric mask".
  void writeRoutes(const std::vector<std::string>& routes) const {
    static const std::regex words(R"((\S+) (\S+) (\S+) (\S+) (\S+))");
    std::string table = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\n";
    for (const std::string& route : routes) {
      table += std::regex_replace(route, words, "$1\t$2\t010200C0\t$3\t0\t0\t$4\t$5\t0\t0\t0\n");
    }
    write("/proc/net/route", table);
  }

  TemporaryFolder root_;
  CapturedLog log_;
  HardwareRegistryLinux registry_{root_.path()};
};

TEST_F(LinuxMachine, HasTheSerialNumberOfItsFirmware) {
  const std::string dmi = "/sys/class/dmi/id/product_serial";
  EXPECT_EQ(serialNumber(), "NOSERIALNUMBER");
  // It can't be read, as with other users' programs.
  std::filesystem::create_directories(root_.path() + dmi);
  EXPECT_EQ(serialNumber(), "NOSERIALNUMBER");
  write("/sys/firmware/devicetree/base/serial-number", std::string_view("10000000a3b\0", 12));
  EXPECT_EQ(serialNumber(), "10000000a3b");
  EXPECT_THAT(log_.texts(), IsEmpty());

  remove(dmi);
  write(dmi, "  PF2A \xFF 1 \n");
  EXPECT_EQ(serialNumber(), "PF2A \xEF\xBF\xBD 1");
  write(dmi, "12346789\n");
  EXPECT_EQ(serialNumber(), "12346789");
  for (const char* const forgotten :
       {"To Be Filled By O.E.M.\n", "to be filled by o.e\n", "Default string\n", "Not Available\n",
        "0000\n", "XXXXXXXX\n", "123456789\n", "01234567890123\n", "\n"}) {
    write(dmi, forgotten);
    EXPECT_EQ(serialNumber(), "NOSERIALNUMBER") << forgotten;
  }
  EXPECT_EQ(log_.count("return nil."), 9U);
}

TEST_F(LinuxMachine, HasTheModelOfItsFirmware) {
  const auto model = [this] { return SystemInfo::getHardwareModel(registry_); };
  EXPECT_EQ(model(), "");
  write("/sys/firmware/devicetree/base/model", std::string_view("Raspberry Pi 4\0", 15));
  EXPECT_EQ(model(), "Raspberry Pi 4");
  write("/sys/class/dmi/id/product_name", "20XW  \n");
  EXPECT_EQ(model(), "20XW");
  write("/sys/class/dmi/id/product_name", "System Product Name\n");
  EXPECT_EQ(model(), "");
  EXPECT_EQ(HardwareRegistryLinux::cpuTypeOf("aarch64"), 0x0100000CU);
  EXPECT_EQ(HardwareRegistryLinux::cpuTypeOf("x86_64"), 0x01000007U);
  EXPECT_EQ(HardwareRegistryLinux::cpuTypeOf("riscv64"), 0U);
}

TEST_F(LinuxMachine, HasTheVersionOfItsDistributionElseItsKernel) {
  const auto found = [this] { return SystemInfo::getOSVersion(registry_); };
  EXPECT_EQ(found(), "0.0.0");
  write("/proc/sys/kernel/osrelease", "6.18.44-fc-v669\n");
  EXPECT_EQ(found(), "6.18.44");
  write("/usr/lib/os-release", "NAME=x\nVERSION_ID=3.18.4.9\n");
  EXPECT_EQ(found(), "3.18.4");
  const std::vector<std::pair<const char*, const char*>> versions{
      {"VERSION_ID=\"12\"", "12.0.0"},         {"VERSION_ID='22.04'\n", "22.4.0"},
      {"VERSION_ID=15.x\n", "15.0.0"},         {"VERSION_ID=20261121\n", "20261121.0.0"},
      {"VERSION_ID=1\nVERSION_ID=2", "2.0.0"}, {"ID=arch\nVERSION=7\n", "6.18.44"},
      {"VERSION_ID=-3\n", "6.18.44"},          {"VERSION_ID=99999999999\n", "6.18.44"},
      {"VERSION_ID=\"\"\n", "6.18.44"},        {"VERSION_ID=4.99999999999.1\n", "4.0.0"}};
  for (const auto& [release, version] : versions) {
    write("/etc/os-release", release);
    EXPECT_EQ(found(), version) << release;
  }
}

TEST_F(LinuxMachine, HasTheAddressOfItsPreferredEthernetInterface) {
  EXPECT_EQ(mac(), std::nullopt);
  addInterface("eth0", "00");
  addInterface("eth1", "01");
  addInterface("tun0", "02", {"tun_flags"}, "65534\n");
  addInterface("tap0", "03", {"tun_flags"});
  EXPECT_EQ(mac(), std::nullopt);  // no default route
  writeRoutes({"eth0 000200C0 0001 0 00FFFFFF", "eth0 00000000 0001 0 000000C0"});
  EXPECT_EQ(mac(), std::nullopt);  // half of all addresses is no default either
  writeRoutes({"eth0 00000000 0003 600 00000000", "eth1 00000000 0003 1000 00000000",
               "tun0 00000000 0001 0 00000000", "tap0 00000000 0003 0 00000000"});
  EXPECT_EQ(mac(), "02fc00000000");
  writeRoutes({"eth0 00000000 0003 600 00000000", "eth1 00000000 0003 100 00000000"});
  EXPECT_EQ(mac(), "02fc00000001");
  writeRoutes({"eth0 00000000 0203 0 00000000", "eth1 00000000 0002 1 00000000",
               "../eth0 00000000 0003 2 00000000", "gone 00000000 0003 3 00000000"});
  EXPECT_EQ(mac(), std::nullopt);  // refused, down, no name, not there
  write("/proc/net/ipv6_route",
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "fd000000000000000000000000000001 00000400 00000003 00000000 00000003     eth1\n"
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "00000000000000000000000000000000 00000010 00000003 00000000 00200203     eth0\n"
        "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
        "fd000000000000000000000000000001 0000000a 00000003 00000000 0000");  // cut
  EXPECT_EQ(mac(), "02fc00000001");
  for (const char* const address :
       {"00:00:00:00:00:00\n", "\n", "02:fc:0\n", "02-fc\n", "zz:00\n"}) {
    write("/sys/class/net/eth1/address", address);
    EXPECT_EQ(mac(), std::nullopt) << address;
  }
  EXPECT_THAT(log_.texts(), IsEmpty());
}

TEST_F(LinuxMachine, LooksForTheHardwareBelowAnInterface) {
  writeRoutes({"top 00000000 0003 0 00000000"});
  addInterface("top", "0a", {});
  EXPECT_EQ(mac(), "02fc0000000a");  // a container's
  addInterface("top", "0a", {"lower_bond0"});
  addInterface("bond0", "0b", {"lower_eth2", "lower_eth1", "lower_dummy0"});
  addInterface("dummy0", "0c", {});
  addInterface("eth1", "01");
  addInterface("eth2", "02");
  EXPECT_EQ(mac(), "02fc00000001");  // a VLAN on a bond
  addInterface("eth1", "01", {"lower_top"});
  addInterface("eth2", "02");
  remove("/sys/class/net/eth1/device");
  remove("/sys/class/net/eth2/device");
  EXPECT_EQ(mac(), "02fc0000000a");  // a circle, which ends
}

TEST_F(LinuxMachine, AsksTheToolForItsExtensions) {
  EXPECT_THAT(SystemInfo::getActiveSystemExtensions(registry_), IsEmpty());
  EXPECT_THAT(log_.texts(), IsEmpty());
  const std::string tool = "/usr/bin/systemextensionsctl";
  const auto install = [&](const std::string& script) {
    write(tool, "#!/bin/sh\n" + script);
    std::filesystem::permissions(root_.path() + tool, std::filesystem::perms::owner_all);
  };
  install(R"([ "$*" = list ] && printf '*\t*\tT\tcom.example (1)\tn\ts\n'; exit 3)");
  EXPECT_THAT(SystemInfo::getActiveSystemExtensions(registry_),
              ElementsAre(SystemExtensionInfo{"com.example", "T", true}));
  install(R"(printf '*\t*\tT\tcom.example\tn\t\377\n')");
  EXPECT_THAT(SystemInfo::getActiveSystemExtensions(registry_), IsEmpty());
}

TEST(Languages, AreTagsOfLocaleNames) {
  const std::vector<std::pair<const char*, const char*>> tags{
      {"de_AT@euro", "de-AT"},
      {"sr_RS.UTF-8@latin", "sr-Latn-RS"},
      {"ca_ES@valencia", "ca-ES-valencia"},
      {"DE", "de"},
      {"pt-br", "pt-BR"},
      {"es_419", "es-419"},
      {"zh_Hans", "zh-Hans"},
      {"zh-HANT-tw", "zh-Hant-TW"},
      {"uz_Cyrl_UZ.UTF-8@latin", "uz-Cyrl-UZ"},
      {"nds_DE", "nds-DE"}};
  for (const auto& [locale, tag] : tags) EXPECT_EQ(languageTag(locale), tag);
  for (const char* const locale : {"", "C", "POSIX", "C.UTF-8", "de_", "e1", "en_USA", "zh_Hans_",
                                   "zh_CN_Hans", "zh_Hans_Hant", "/etc/x", "german"}) {
    EXPECT_EQ(languageTag(locale), std::nullopt) << locale;
  }
}

TEST(Languages, AreThoseTheUserPrefers) {
  const ScopedVariable all("LC_ALL", "");
  const ScopedVariable messages("LC_MESSAGES", std::nullopt);
  const ScopedVariable lang("LANG", "de_DE.UTF-8");
  const ScopedVariable list("LANGUAGE", "sv:en_GB::nonsense:de_DE:sv");
  EXPECT_THAT(preferredLanguages(), ElementsAre("sv", "en-GB", "de-DE"));
  {
    const ScopedVariable other("LC_MESSAGES", "fr_FR");
    EXPECT_THAT(preferredLanguages(), ElementsAre("sv", "en-GB", "de-DE", "fr-FR"));
    const ScopedVariable none("LC_ALL", "C.UTF-8");
    EXPECT_THAT(preferredLanguages(), IsEmpty());
  }
  const ScopedVariable none("LANGUAGE", std::nullopt);
  EXPECT_THAT(preferredLanguages(), ElementsAre("de-DE"));
}

TEST(Languages, AreFoundOutOnceForTheProperties) {
  EXPECT_EQ(Telemetry::Props().appLocale, "en-US");  // no locale was set by this program
  const ScopedVariable all("LC_ALL", "C");
  const std::string first = Telemetry::Props().systemLocale;
  const ScopedVariable changed("LC_ALL", first == "ja-JP" ? "fr_FR" : "ja_JP");
  EXPECT_EQ(Telemetry::Props().systemLocale, first);
}

}  // namespace
}  // namespace velum::test
