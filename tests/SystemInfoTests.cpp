#include "Velum/SystemInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <utility>

#include "Velum/Platform/Linux/Machine/HardwareRegistryLinux.h"
#include "Velum/Telemetry.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using testing::ElementsAre;
using testing::IsEmpty;
using CPUType = SystemInfo::CPUType;

/// A registry whose calls end as a test wants them to.
struct FakeRegistry final : HardwareRegistry {
  std::variant<std::string, SerialNumberFailure> serialNumber() override { return serial; }
  std::variant<std::vector<EthernetInterface>, EthernetFailure> primaryEthernetInterfaces()
      override {
    return interfaces;
  }
  std::uint32_t cpuType() override { return processor; }
  std::string hardwareModel() override { return model; }
  OSVersion osVersion() override { return version; }
  std::optional<std::string> systemExtensionsTool() override { return tool; }

  std::variant<std::string, SerialNumberFailure> serial;
  std::variant<std::vector<EthernetInterface>, EthernetFailure> interfaces;
  std::uint32_t processor = 0;
  std::string model;
  OSVersion version;
  std::optional<std::string> tool;
};

TEST(SerialNumber, FallsBackAndSaysWhyAPropertyIsOfNoUse) {
  using Failure = SerialNumberFailure;
  const std::string record =
      "E: (SystemInfo: serialNumber) IORegistryEntryCreateCFProperty return ";
  FakeRegistry registry;
  for (const auto& [failure, records] : {std::pair{Failure::noDevice, std::vector<std::string>()},
                                         {Failure::notText, {record + "not string."}},
                                         {Failure::missing, {record + "nil."}}}) {
    const CapturedLog log;
    registry.serial = failure;
    EXPECT_EQ(SystemInfo::readSerialNumber(registry), "NOSERIALNUMBER");
    EXPECT_EQ(log.texts(), records);
  }
  registry.serial = "C02X";
  EXPECT_EQ(SystemInfo::readSerialNumber(registry), "C02X");
}

TEST(Mac, IsTheLastInterfacesAndSkipsThoseWithoutAParent) {
  const CapturedLog log;
  FakeRegistry registry;
  EXPECT_EQ(SystemInfo::readMac(registry), std::nullopt);
  std::vector<EthernetInterface> found{{.address = Bytes{0, 1, 2, 3, 4, 5}},
                                       {.status = -536870208}};
  registry.interfaces = found;
  EXPECT_EQ(SystemInfo::readMac(registry), "000102030405");
  EXPECT_THAT(log.texts(), ElementsAre("E: (SystemInfo: GetMACAddress(_:)) "
                                       "IORegistryEntryGetParentEntry returned -536870208"));
  found.push_back({.address = Bytes{0xAB, 0xFF}});
  registry.interfaces = found;
  EXPECT_EQ(SystemInfo::readMac(registry), "abff");
  found.emplace_back();  // takes back what was found before
  registry.interfaces = found;
  EXPECT_EQ(SystemInfo::readMac(registry), std::nullopt);
}

TEST(Mac, ReportsAFailedSearchOnceOrTwice) {
  const CapturedLog log;
  FakeRegistry registry;
  registry.interfaces = EthernetFailure{-536870206};
  EXPECT_EQ(SystemInfo::readMac(registry), std::nullopt);
  registry.interfaces = EthernetFailure{kernFailure, false};
  EXPECT_EQ(SystemInfo::readMac(registry), std::nullopt);
  EXPECT_THAT(log.texts(),
              ElementsAre("E: (SystemInfo: FindEthernetInterfaces(_:)) "
                          "IOServiceGetMatchingServices returned -536870206",
                          "E: (SystemInfo: mac) FindEthernetInterfaces returned 0xe00002c2",
                          "E: (SystemInfo: mac) FindEthernetInterfaces returned 0x00000005"));
}

TEST(SystemInfo, MapsProcessorModelAndVersion) {
  FakeRegistry registry;
  const auto platform = [&] { return Telemetry::makeUserAgent(registry).os.platform; };
  registry.processor = 0x0100000C;
  EXPECT_EQ(SystemInfo::getCPUType(registry), CPUType::arm64);
  EXPECT_EQ(platform(), "arm");
  registry.processor = 0x01000007;
  EXPECT_EQ(SystemInfo::getCPUType(registry), CPUType::x86_64);
  EXPECT_EQ(platform(), "x64");
  registry.processor = 7;  // the same in 32 bits
  EXPECT_EQ(SystemInfo::getCPUType(registry), CPUType::unknown);
  EXPECT_EQ(platform(), "");
  EXPECT_EQ(rawValue(CPUType::x86_64), "x86_64");
  EXPECT_EQ(fromRawValue<CPUType>("arm64"), CPUType::arm64);
  EXPECT_EQ(fromRawValue<CPUType>("ARM64"), std::nullopt);

  EXPECT_EQ(SystemInfo::getHardwareModel(registry), "");
  registry.model = std::string("Mac\xFFPro18,3\0rest", 16);
  EXPECT_EQ(SystemInfo::getHardwareModel(registry), "Mac\xEF\xBF\xBDPro18,3");
  registry.version = {14, 2, 0};
  EXPECT_EQ(Telemetry::makeUserAgent(registry).os.version, "14.2.0");
  EXPECT_EQ(Telemetry::makeUserAgent(registry).device.model, "Mac\xEF\xBF\xBDPro18,3");
}

TEST(SystemExtensions, ReportsActiveRowsWithoutVersions) {
  EXPECT_THAT(SystemInfo::parsedSystemExtensions(
                  "2 extension(s)\n--- com.apple.system_extension.network_extension\n"
                  "enabled\tactive\tteamID\tbundleID (version)\tname\n\n"
                  "*\t*\tABCDE12345\tcom.example.ext (1.0/1)\tExample\t[activated enabled]\n"
                  "*\t\tABCDE12345\tcom.example.waits (1.0/1)\tExample\t[waiting]\n"
                  "*\t*\tABCDE12345\tcom.example.five\tExample\n"
                  "*\t*\tABCDE12345\tcom.example.seven\tExample\t[activated]\t\n"
                  "\t*\t\tcom.example(1) () (2)\t\t\n"
                  "\t*\t\tcom.example (a (b) c) (2.0\tExample\t[activated disabled]\r\n"
                  "\t*\t\t\t\t"),
              ElementsAre(SystemExtensionInfo{"com.example.ext", "ABCDE12345", true},
                          SystemExtensionInfo{"com.example(1)", "", false},
                          SystemExtensionInfo{"com.example c) (2.0", "", false},
                          SystemExtensionInfo{"", "", false}));
  EXPECT_THAT(SystemInfo::parsedSystemExtensions(""), IsEmpty());
}

/// The files of another machine.
class LinuxMachine : public testing::Test {
 protected:
  void write(const std::string& path, std::string_view content) const {
    writeFile(root_.path() + path, content);
  }
  void remove(const std::string& path) const { fs::remove_all(root_.path() + path); }
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
    std::string table = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\n";
    for (const std::string& route : routes) {
      std::istringstream words(route);
      std::string name, destination, flags, metric, mask;  // NOLINT: five words
      words >> name >> destination >> flags >> metric >> mask;
      table.append(name).append("\t").append(destination).append("\t010200C0\t").append(flags);
      table.append("\t0\t0\t").append(metric).append("\t").append(mask).append("\t0\t0\t0   \n");
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
  fs::create_directories(root_.path() + dmi);  // can't be read, as with other users' programs
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
  EXPECT_EQ(SystemInfo::getHardwareModel(registry_), "");
  write("/sys/firmware/devicetree/base/model", std::string_view("Raspberry Pi 4\0", 15));
  EXPECT_EQ(SystemInfo::getHardwareModel(registry_), "Raspberry Pi 4");
  write("/sys/class/dmi/id/product_name", "20XW  \n");
  EXPECT_EQ(SystemInfo::getHardwareModel(registry_), "20XW");
  write("/sys/class/dmi/id/product_name", "System Product Name\n");
  EXPECT_EQ(SystemInfo::getHardwareModel(registry_), "");
  EXPECT_EQ(HardwareRegistryLinux::cpuTypeOf("aarch64"), 0x0100000CU);
  EXPECT_EQ(HardwareRegistryLinux::cpuTypeOf("x86_64"), 0x01000007U);
  EXPECT_EQ(HardwareRegistryLinux::cpuTypeOf("riscv64"), 0U);
}

TEST_F(LinuxMachine, HasTheVersionOfItsDistributionElseItsKernel) {
  EXPECT_EQ(SystemInfo::getOSVersion(registry_), "0.0.0");
  write("/proc/sys/kernel/osrelease", "6.18.44-fc-v669\n");
  EXPECT_EQ(SystemInfo::getOSVersion(registry_), "6.18.44");
  write("/usr/lib/os-release", "NAME=x\nVERSION_ID=3.18.4.9\n");
  EXPECT_EQ(SystemInfo::getOSVersion(registry_), "3.18.4");
  const std::vector<std::pair<const char*, const char*>> versions{
      {"VERSION_ID=\"12\"", "12.0.0"},         {"VERSION_ID='22.04'\n", "22.4.0"},
      {"VERSION_ID=15.x\n", "15.0.0"},         {"VERSION_ID=20261121\n", "20261121.0.0"},
      {"VERSION_ID=1\nVERSION_ID=2", "2.0.0"}, {"ID=arch\nVERSION=7\n", "6.18.44"},
      {"VERSION_ID=-3\n", "6.18.44"},          {"VERSION_ID=99999999999\n", "6.18.44"},
      {"VERSION_ID=\"\"\n", "6.18.44"},        {"VERSION_ID=4.99999999999.1\n", "4.0.0"}};
  for (const auto& [release, version] : versions) {
    write("/etc/os-release", release);
    EXPECT_EQ(SystemInfo::getOSVersion(registry_), version) << release;
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

TEST_F(LinuxMachine, HasNoAddressWhereTheInterfaceHasNone) {
  writeRoutes({"eth0 00000000 0003 0 00000000"});
  addInterface("eth0", "00");
  for (const char* const address :
       {"00:00:00:00:00:00\n", "\n", "02:fc:0\n", "02-fc\n", "zz:00\n"}) {
    write("/sys/class/net/eth0/address", address);
    EXPECT_EQ(mac(), std::nullopt) << address;
  }
}

TEST_F(LinuxMachine, AsksTheToolForItsExtensions) {
  EXPECT_THAT(SystemInfo::getActiveSystemExtensions(registry_), IsEmpty());
  EXPECT_THAT(log_.texts(), IsEmpty());
  const std::string tool = "/usr/bin/systemextensionsctl";
  const auto install = [&](const std::string& script) {
    write(tool, "#!/bin/sh\n" + script);
    fs::permissions(root_.path() + tool, fs::perms::owner_all);
  };
  install(R"([ "$*" = list ] && printf '*\t*\tT\tcom.example (1)\tn\ts\n'; exit 3)");
  EXPECT_THAT(SystemInfo::getActiveSystemExtensions(registry_),
              ElementsAre(SystemExtensionInfo{"com.example", "T", true}));
  install(R"(printf '*\t*\tT\tcom.example\tn\t\377\n')");
  EXPECT_THAT(SystemInfo::getActiveSystemExtensions(registry_), IsEmpty());
}

}  // namespace
}  // namespace velum::test
