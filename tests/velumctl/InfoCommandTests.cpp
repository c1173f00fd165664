#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Velum/SystemInfo.h"
#include "Velum/Telemetry.h"
#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

using testing::HasSubstr;

class VelumctlInfo : public VelumctlTest {};

TEST_F(VelumctlInfo, PrintsWhatTheLibraryKnowsOfTheMachine) {
  const Result text = run({"sysinfo"});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.output, HasSubstr("System version:    " + SystemInfo::getOSVersion() + "\n"));
  EXPECT_THAT(text.output, HasSubstr("System extensions: none active\n"));
  const Result result = run({"sysinfo", "--json"});
  EXPECT_EQ(result.status, 0);
  const auto info = nlohmann::json::parse(result.output);
  EXPECT_EQ(info.at("serial_number"), SystemInfo::serialNumber());
  EXPECT_EQ(info.at("mac"), SystemInfo::mac() ? nlohmann::json(*SystemInfo::mac()) : nullptr);
  EXPECT_EQ(info.at("cpu_type"), rawValue(SystemInfo::getCPUType()));
  EXPECT_EQ(info.at("model"), SystemInfo::getHardwareModel());
  EXPECT_TRUE(info.at("system_extensions").is_array());
}

TEST_F(VelumctlInfo, PrintsTheBodyOfAnEvent) {
  const Strings common{"telemetry",      "body",        "--name",        "a/b",
                       "--app-type",     "PLOVER_DESK", "--app-version", "1.0",
                       "--synthetic-id", "x",           "--ref-name",    "r"};
  const auto body = [&](const Strings& more) { return run(common + more); };
  const Telemetry telemetry("x", Telemetry::AppType::ploverDesk, "1.0");
  Telemetry::Props props;
  props.appLocale = "de-AT";
  props.systemLocale = "fr-FR";
  props.loggedIn = false;
  props.theme = Telemetry::Theme::systemDark;
  props.experiment3 = "";
  const Result pageview =
      body({"--type", "pageview", "--app-locale", "de-AT", "--system-locale", "fr-FR",
            "--logged-in", "false", "--theme", "SYSTEM_DARK", "--experiment-3", ""});
  EXPECT_EQ(pageview.output,
            telemetry.eventJSONData(Telemetry::Pageview{"a/b", "r"}, props).value() + "\n");
  constexpr int usage = 2;
  EXPECT_EQ(body({"--type", "pageview", "--action", "click"}).status, usage);
  EXPECT_EQ(body({"--type", "session"}).status, usage);
  EXPECT_EQ(body({"--type", "custom", "--theme", "Dark"}).status, usage);
  const Result unencodable = body({"--type", "custom", "--action", "\xFF"});
  EXPECT_EQ(unencodable.status, 1);
  EXPECT_EQ(unencodable.output, "");
}

TEST_F(VelumctlInfo, PrintsSyntheticIdentifiers) {
  EXPECT_EQ(run({"telemetry", "synthetic-id", "1f"}).output, "bcaaaaaa\n");
  EXPECT_EQ(run({"telemetry", "synthetic-id", "--", "-1f"}).output, "bcaaaaaa\n");
  const Result unusable = run({"telemetry", "synthetic-id", "no such number"});
  EXPECT_EQ(unusable.output, "aaaaaaaa\n");
  EXPECT_EQ(unusable.status, 1);
}

}  // namespace
}  // namespace velum::test
