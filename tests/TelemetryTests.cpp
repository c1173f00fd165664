#include "Velum/Telemetry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <utility>
#include <vector>

#include "Velum/Json/Json.h"
#include "tests/support/CapturedLog.h"

namespace velum::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_view_literals;

TEST(SyntheticId, IsMadeOfAHexadecimalNumberElseOfTheTextsCodes) {
  const CapturedLog log;
  const std::vector<std::pair<std::string_view, std::string_view>> identifiers{
      {"1f", "bcaaaaaa"},
      {"+1F", "bcaaaaaa"},
      {"-1f", "bcaaaaaa"},
      {"000000000000000000000000000000001f", "bcaaaaaa"},
      {"deadbeef", "986b6971"},
      {"7fffffffffffffff", "2a311d1e"},
      {"-8000000000000000", "3a311d1e"},
      // Codes from here on.
      {"0", "ddaaaaaa"},
      {"0x1f", "28e771c8"},
      {" 1f", "715ceeaa"},
      {"+-1", "9e633aaa"},
      {"+", "8caaaaaa"},
      {"zd", "a5c1caaa"},  // 122 and 100
      {"\r", "8aaaaaaa"},
      {"\r\n", "5aaaaaaa"},
      {"\r\nz", "799caaaa"},
      {"\0z"sv, "c3aaaaaa"},
      {"z\0"sv, "f1faaaaa"},
      {"éa", "21aaaaaa"},
      {"xe\u0301", "affaaaaa"},
      {"\U0001F1E9\U0001F1EAq", "32aaaaaa"},        // one flag
      {"q\U0001F469\u200D\U0001F4BB", "fafaaaaa"},  // one person at a computer
      {"\xFFz", "c3aaaaaa"},                        // no UTF-8
      {"\\\x17%\x14$U/KP\x07", "2a311d1e"},         // 9223372036854775807
  };
  for (const auto& [text, identifier] : identifiers) {
    EXPECT_EQ(Telemetry::createSyntheticId(text), identifier) << text;
  }
  EXPECT_EQ(Telemetry::createSyntheticId(std::string(1'000'000, '\0') + 'z'), "c3aaaaaa");
  EXPECT_THAT(log.texts(), IsEmpty());
  // No number of 64 bits.
  const std::string huge(1'000'000, 'f');
  const std::vector<std::string_view> unusable{
      "", "é", "8000000000000000", "-8000000000000001", "\\\x17%\x14$U/KP\x08", huge};
  for (const auto text : unusable) EXPECT_EQ(Telemetry::createSyntheticId(text), "aaaaaaaa");
  EXPECT_EQ(log.count("E: (Telemetry: createSyntheticId(from:)) Invalid synthetic id"),
            unusable.size());
}

TEST(JsonText, AgreesWithTheLibrarysButForSlashes) {
  nlohmann::json value{"é\u2028\U0001F469//", {{"k", {-1.5e300, true, {}}}, {"/", {{"", 7}}}}, 1.0};
  value.push_back(nlohmann::json::array());
  for (int code = 0; code < 0x80; ++code) value.push_back(std::string(2, static_cast<char>(code)));
  EXPECT_EQ(jsonText(value), std::regex_replace(value.dump(), std::regex("/"), "\\/"));
  EXPECT_THROW(jsonText(nlohmann::json("ab\xE2\x82")), nlohmann::json::type_error);
}

class TelemetryBody : public testing::Test {
 protected:
  /// A body of `rest`, with what all of them have and what this machine's records look like.
  std::string body(const std::string& rest) const {
    const auto& [device, os] = Telemetry::userAgent();
    const auto text = [](std::string_view value) { return jsonText(nlohmann::json(value)); };
    return R"({"synthetic_id":)" + text(telemetry_.syntheticId) + R"(,"app_type":)" +
           text(rawValue(telemetry_.appType)) + R"(,"version":"2.1\/3","user_agent":{"device":)" +
           R"({"brand":"Apple","model":)" + text(device.model) +
           R"(},"os":{"name":"mac","platform":)" + text(os.platform) + R"(,"version":)" +
           text(os.version) + "}}," + rest + "}";
  }
  static Telemetry::Props plainProps() {
    Telemetry::Props props;
    props.appLocale = "de-AT";
    props.systemLocale = "en-US";
    return props;
  }

  CapturedLog log_;
  Telemetry telemetry_{"bcaaaaaa", Telemetry::AppType::kestrelDesk, "2.1/3"};
};

TEST_F(TelemetryBody, LeavesOutWhatIsAbsent) {
  EXPECT_EQ(telemetry_.eventJSONData(Telemetry::Pageview{"settings", ""}, plainProps()),
            body(R"("pageview":{"name":"settings","ref_name":""},)"
                 R"("props":{"app_locale":"de-AT","system_locale":"en-US"})"));
}

TEST_F(TelemetryBody, HasTheKeysOfCustomEventsAndAllSettingsInTheirOrder) {
  Telemetry::Props props = plainProps();
  props.websiteExclusions = Telemetry::WebsiteExclusions::general;
  props.appExclusions = Telemetry::AppExclusions::selective;
  props.loggedIn = false;
  props.theme = Telemetry::Theme::systemLight;
  props.killSwitch = Telemetry::BinaryState::on;
  props.stats = Telemetry::BinaryState::off;
  props.retentionCohort = Telemetry::RetentionCohort::longtime;
  props.updateInterval = Telemetry::UpdateIntervalSource::systemDefault;
  props.operatingMode = Telemetry::OperatingMode::integrated;
  props.experiment1 = "a_def";
  props.experiment2 = "";
  props.experiment3 = "\"é\"\n";
  telemetry_.appType = Telemetry::AppType::ploverDesk;
  telemetry_.syntheticId = "12345678";
  EXPECT_EQ(telemetry_.eventJSONData(Telemetry::CustomEvent{"a", "b", "https://c", "d\x1F"}, props),
            body(R"("event":{"name":"a","ref_name":"b","action":"https:\/\/c","label":"d\u001f"},)"
                 R"("props":{"website_exclusions":"GENERAL","app_exclusions":"SELECTIVE",)"
                 R"("app_locale":"de-AT","system_locale":"en-US","logged_in":false,)"
                 R"("theme":"SYSTEM_LIGHT","kill_switch":"ON","stats":"OFF",)"
                 R"("retention_cohort":"LONGTIME","update_interval":"SYSTEM_DEFAULT",)"
                 R"("operating_mode":"INTEGRATED","experiment_1":"a_def","experiment_2":"",)"
                 R"("experiment_3":"\"é\"\n"})"));
  EXPECT_EQ(rawValue(telemetry_.appType), "PLOVER_DESK");
}

TEST_F(TelemetryBody, OfASessionHasTestsInsteadOfAnEvent) {
  using Experiment = Telemetry::Experiment;
  using Option = Telemetry::ExperimentOption;
  const std::string props = R"("props":{"app_locale":"de-AT","system_locale":"en-US"},"tests":)";
  EXPECT_EQ(telemetry_.startSessionEventJSONData(plainProps(), {}), body(props + "{}"));
  EXPECT_EQ(
      telemetry_.startSessionEventJSONData(plainProps(), {{Experiment::experiment3, Option::optB},
                                                          {Experiment::experiment1, Option::optA}}),
      body(props + R"({"experiment_1":"a_def","experiment_3":"b"})"));
}

TEST_F(TelemetryBody, IsPostedToTheCallersURL) {
  const Telemetry::Pageview event{"a", "b"};
  const auto request = telemetry_.eventRequest("https://example.com/e", 7.5, event, plainProps());
  ASSERT_TRUE(request);
  EXPECT_EQ(request->url, "https://example.com/e");
  EXPECT_EQ(request->method, "POST");
  EXPECT_EQ(request->timeoutInterval, 7.5);
  EXPECT_EQ(request->headers, (HTTPHeaders{{"Content-Type", "application/json"}}));
  EXPECT_EQ(request->body, telemetry_.eventJSONData(event, plainProps()));
  const auto session = telemetry_.startSessionRequest("https://example.com/s", 1, plainProps(), {});
  ASSERT_TRUE(session);
  EXPECT_EQ(session->body, telemetry_.startSessionEventJSONData(plainProps(), {}));
}

TEST_F(TelemetryBody, IsNotMadeOfTextThatIsNoUTF8) {
  EXPECT_FALSE(telemetry_.eventRequest(
      "https://example.com", 1, Telemetry::CustomEvent{"a", "b", "secret\xFF", ""}, plainProps()));
  telemetry_.appVersion = "\xC3";
  EXPECT_FALSE(telemetry_.startSessionRequest("https://example.com", 1, plainProps(), {}));
  EXPECT_THAT(log_.texts(),
              ElementsAre("E: (Telemetry: eventJSONData(event:props:)) Failed to encode event the "
                          "text of \"action\" is not UTF-8",
                          "E: (Telemetry: startSessionEventJSONData(props:tests:)) Failed to "
                          "encode event the text of \"version\" is not UTF-8"));
}

TEST(StartSessionResponse, NeedsAllKeysAndPassesOverOthers) {
  const CapturedLog log;
  const auto decoded = [](const nlohmann::json& response) {
    return Telemetry::decodeStartSessionResponse(response.dump());
  };
  const auto version = [](const char* name, const char* text) {
    return nlohmann::json{{"experiment_name", name}, {"version_name", text}};
  };
  nlohmann::json whole{{"versions",
                        {{"experiment_1", version("one", "a_def")},
                         {"experiment_2", version("two", "é")},
                         {"experiment_3", version("", "b")}}}};
  whole["more"] = {1, 2};
  whole["versions"]["experiment_1"]["more"] = nullptr;
  const auto response = decoded(whole);
  ASSERT_TRUE(response);
  EXPECT_EQ(response->versions.experiment1.experimentName, "one");
  EXPECT_EQ(response->versions.experiment1.versionName, "a_def");
  EXPECT_EQ(response->versions.experiment2.versionName, "é");
  EXPECT_EQ(response->versions.experiment3.experimentName, "");
  EXPECT_THAT(log.texts(), IsEmpty());

  std::vector<std::string> wrong{"", "[]", "{\"versions\":", "\"\xFF\"", std::string(100'000, '[')};
  for (const char* const place :
       {"/versions", "/versions/experiment_2", "/versions/experiment_3/version_name"}) {
    const nlohmann::json::json_pointer pointer(place);
    nlohmann::json changed = whole;
    for (const nlohmann::json& other : {nlohmann::json(), nlohmann::json(1)}) {
      changed[pointer] = other;
      wrong.push_back(changed.dump());
    }
    changed[pointer.parent_pointer()].erase(pointer.back());
    wrong.push_back(changed.dump());
  }
  for (const std::string& text : wrong) {
    EXPECT_FALSE(Telemetry::decodeStartSessionResponse(text)) << text.substr(0, 200);
  }
  EXPECT_EQ(log.count("E: (Telemetry: decodeStartSessionResponse(_:)) Failed to decode start "
                      "session response JSON error "),
            wrong.size());
}

}  // namespace
}  // namespace velum::test
