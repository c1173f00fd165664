#include "Velum/Telemetry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <utility>
#include <vector>

#include "Velum/Json/Json.h"
#include "Velum/Platform/Linux/Machine/LocaleLinux.h"
#include "Velum/Platform/Locale.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Environment.h"

namespace velum::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_view_literals;

TEST(SyntheticId, ReadsHexadecimalNumbers) {
  const CapturedLog log;
  const std::vector<std::pair<std::string_view, std::string_view>> identifiers{
      {"f", "abaaaaaa"},
      {"1f", "bcaaaaaa"},
      {"+1F", "bcaaaaaa"},
      {"-1f", "bcaaaaaa"},
      {"000000000000000000000000000000001f", "bcaaaaaa"},
      {"deadbeef", "986b6971"},
      {"7fffffffffffffff", "2a311d1e"},
      {"-8000000000000000", "3a311d1e"},
  };
  for (const auto& [text, identifier] : identifiers) {
    EXPECT_EQ(Telemetry::createSyntheticId(text), identifier) << text;
  }
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST(SyntheticId, ReadsOtherTextsAsTheirCodes) {
  const CapturedLog log;
  const std::vector<std::pair<std::string_view, std::string_view>> identifiers{
      {"0", "ddaaaaaa"},
      {"-0", "ddfbaaaa"},
      {"0x1f", "28e771c8"},
      {" 1f", "715ceeaa"},
      {"+-1", "9e633aaa"},
      {"+", "8caaaaaa"},
      {"zzzzzz", "74681926"},
      {"zd", "a5c1caaa"},  // 122 and 100
      {"\n", "5aaaaaaa"},
      {"\r", "8aaaaaaa"},
      {"\r\n", "5aaaaaaa"},
      {"\r\nz", "799caaaa"},
      {"\0z"sv, "c3aaaaaa"},
      {"z\0"sv, "f1faaaaa"},
      {"éa", "21aaaaaa"},
      {"e\u0301x", "a3aaaaaa"},
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
}

TEST(SyntheticId, IsAllAWhenTheTextIsNoNumberOf64Bits) {
  const CapturedLog log;
  const std::vector<std::string_view> texts{
      "", "é", "8000000000000000", "-8000000000000001", "helloWorld", "\\\x17%\x14$U/KP\x08"};
  for (const auto text : texts) EXPECT_EQ(Telemetry::createSyntheticId(text), "aaaaaaaa") << text;
  EXPECT_EQ(Telemetry::createSyntheticId(std::string(1'000'000, 'f')), "aaaaaaaa");
  EXPECT_EQ(log.count("E: (Telemetry: createSyntheticId(from:)) Invalid synthetic id"),
            texts.size() + 1);
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
  /// What this machine's records look like in a body.
  static std::string userAgent() {
    const auto& [device, os] = Telemetry::userAgent();
    const auto text = [](const std::string& value) { return jsonText(nlohmann::json(value)); };
    return R"("user_agent":{"device":{"brand":"Apple","model":)" + text(device.model) +
           R"(},"os":{"name":"mac","platform":)" + text(os.platform) + R"(,"version":)" +
           text(os.version) + "}}";
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
            R"({"synthetic_id":"bcaaaaaa","app_type":"KESTREL_DESK","version":"2.1\/3",)" +
                userAgent() +
                R"(,"pageview":{"name":"settings","ref_name":""},)"
                R"("props":{"app_locale":"de-AT","system_locale":"en-US"}})");
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
            R"({"synthetic_id":"12345678","app_type":"PLOVER_DESK","version":"2.1\/3",)" +
                userAgent() +
                R"(,"event":{"name":"a","ref_name":"b","action":"https:\/\/c","label":"d\u001f"},)"
                R"("props":{"website_exclusions":"GENERAL","app_exclusions":"SELECTIVE",)"
                R"("app_locale":"de-AT","system_locale":"en-US","logged_in":false,)"
                R"("theme":"SYSTEM_LIGHT","kill_switch":"ON","stats":"OFF",)"
                R"("retention_cohort":"LONGTIME","update_interval":"SYSTEM_DEFAULT",)"
                R"("operating_mode":"INTEGRATED","experiment_1":"a_def","experiment_2":"",)"
                R"("experiment_3":"\"é\"\n"}})");
}

TEST_F(TelemetryBody, OfASessionHasTestsInsteadOfAnEvent) {
  using Experiment = Telemetry::Experiment;
  using Option = Telemetry::ExperimentOption;
  const auto body = [&](const std::string& tests) {
    return R"({"synthetic_id":"bcaaaaaa","app_type":"KESTREL_DESK","version":"2.1\/3",)" +
           userAgent() + R"(,"props":{"app_locale":"de-AT","system_locale":"en-US"},"tests":)" +
           tests + "}";
  };
  EXPECT_EQ(telemetry_.startSessionEventJSONData(plainProps(), {}), body("{}"));
  EXPECT_EQ(
      telemetry_.startSessionEventJSONData(plainProps(), {{Experiment::experiment3, Option::optB},
                                                          {Experiment::experiment1, Option::optA}}),
      body(R"({"experiment_1":"a_def","experiment_3":"b"})"));
}

TEST_F(TelemetryBody, IsPostedToTheCallersURL) {
  const Telemetry::Pageview event{"a", "b"};
  const auto request = telemetry_.eventRequest("https://example.com/e", 7.5, event, plainProps());
  ASSERT_TRUE(request);
  EXPECT_EQ(request->url, "https://example.com/e");
  EXPECT_EQ(request->method, "POST");
  EXPECT_EQ(request->timeoutInterval, 7.5);
  EXPECT_EQ(request->cachePolicy, URLRequest::CachePolicy::useProtocolCachePolicy);
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

  std::size_t failures = 0;
  for (const char* const place :
       {"/versions", "/versions/experiment_2", "/versions/experiment_3/version_name"}) {
    const nlohmann::json::json_pointer pointer(place);
    for (const nlohmann::json& wrong :
         {nlohmann::json(), nlohmann::json(1), nlohmann::json::array()}) {
      nlohmann::json changed = whole;
      changed[pointer] = wrong;
      EXPECT_FALSE(decoded(changed)) << changed;
      ++failures;
    }
    nlohmann::json cut = whole;
    cut[pointer.parent_pointer()].erase(pointer.back());
    EXPECT_FALSE(decoded(cut)) << cut;
    ++failures;
  }
  for (const std::string& text : {std::string(), std::string("[]"), std::string("{\"versions\":"),
                                  std::string("\"\xFF\""), std::string(100'000, '[')}) {
    EXPECT_FALSE(Telemetry::decodeStartSessionResponse(text)) << text.substr(0, 20);
    ++failures;
  }
  EXPECT_EQ(log.count("E: (Telemetry: decodeStartSessionResponse(_:)) Failed to decode start "
                      "session response JSON error "),
            failures);
}

TEST(Languages, AreTagsOfLocaleNames) {
  const std::vector<std::pair<const char*, const char*>> tags{
      {"en_US.UTF-8", "en-US"},
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
