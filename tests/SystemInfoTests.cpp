#include "Velum/SystemInfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Velum/Telemetry.h"
#include "tests/support/CapturedLog.h"

namespace velum::test {
namespace {

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
  std::vector<EthernetInterface> found{{.address = Bytes{0, 1, 0x0F, 0xA0, 4, 5}},
                                       {.status = -536870208}};
  registry.interfaces = found;
  EXPECT_EQ(SystemInfo::readMac(registry), "00010fa00405");
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
  for (const EthernetFailure failure : {EthernetFailure{-536870206}, {kernFailure, false}}) {
    registry.interfaces = failure;
    EXPECT_EQ(SystemInfo::readMac(registry), std::nullopt);
  }
  EXPECT_THAT(log.texts(),
              ElementsAre("E: (SystemInfo: FindEthernetInterfaces(_:)) "
                          "IOServiceGetMatchingServices returned -536870206",
                          "E: (SystemInfo: mac) FindEthernetInterfaces returned 0xe00002c2",
                          "E: (SystemInfo: mac) FindEthernetInterfaces returned 0x00000005"));
}

TEST(SystemInfo, MapsProcessorModelAndVersion) {
  FakeRegistry registry;
  const std::vector<std::tuple<std::uint32_t, CPUType, std::string>> processors{
      {0x0100000C, CPUType::arm64, "arm"},
      {0x01000007, CPUType::x86_64, "x64"},
      {7, CPUType::unknown, ""}};  // the same in 32 bits
  for (const auto& [number, type, platform] : processors) {
    registry.processor = number;
    EXPECT_EQ(SystemInfo::getCPUType(registry), type);
    EXPECT_EQ(Telemetry::makeUserAgent(registry).os.platform, platform);
  }
  EXPECT_EQ(rawValue(CPUType::x86_64), "x86_64");
  EXPECT_EQ(fromRawValue<CPUType>("arm64"), CPUType::arm64);
  EXPECT_EQ(fromRawValue<CPUType>("ARM64"), std::nullopt);

  EXPECT_EQ(SystemInfo::getHardwareModel(registry), "");
  registry.model = std::string("Mac\xFFPro18,3\0rest", 16);
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

}  // namespace
}  // namespace velum::test
