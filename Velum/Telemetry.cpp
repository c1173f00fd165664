#include "Velum/Telemetry.h"

#include <cstddef>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <utility>

#include "Velum/Base/LazyValue.h"
#include "Velum/Json/Json.h"
#include "Velum/Json/JsonWriter.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Locale.h"
#include "Velum/SystemInfo.h"

namespace velum {
namespace {

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/Telemetry", function, where};
}

constexpr std::string_view fallbackLanguage = "en-US";

std::string_view platformOf(SystemInfo::CPUType type) {
  switch (type) {
    case SystemInfo::CPUType::arm64:
      return "arm";
    case SystemInfo::CPUType::x86_64:
      return "x64";
    default:
      return "";
  }
}

void encode(JsonObjectWriter& body, const Telemetry::UserAgent& agent) {
  body.addObject("user_agent", [&](JsonObjectWriter& json) {
    json.addObject("device", [&](JsonObjectWriter& device) {
      device.add("brand", agent.device.brand);
      device.add("model", agent.device.model);
    });
    json.addObject("os", [&](JsonObjectWriter& os) {
      os.add("name", agent.os.name);
      os.add("platform", agent.os.platform);
      os.add("version", agent.os.version);
    });
  });
}

void encode(JsonObjectWriter& body, const Telemetry::Pageview& pageview) {
  body.addObject("pageview", [&](JsonObjectWriter& json) {
    json.add("name", pageview.name);
    json.add("ref_name", pageview.refName);
  });
}

void encode(JsonObjectWriter& body, const Telemetry::CustomEvent& event) {
  body.addObject("event", [&](JsonObjectWriter& json) {
    json.add("name", event.name);
    json.add("ref_name", event.refName);
    json.add("action", event.action);
    json.add("label", event.label);
  });
}

void encode(JsonObjectWriter& body, const Telemetry::Props& props) {
  body.addObject("props", [&](JsonObjectWriter& json) {
    json.add("website_exclusions", props.websiteExclusions);
    json.add("app_exclusions", props.appExclusions);
    json.add("app_locale", props.appLocale);
    json.add("system_locale", props.systemLocale);
    json.add("logged_in", props.loggedIn);
    json.add("theme", props.theme);
    json.add("kill_switch", props.killSwitch);
    json.add("stats", props.stats);
    json.add("retention_cohort", props.retentionCohort);
    json.add("update_interval", props.updateInterval);
    json.add("operating_mode", props.operatingMode);
    json.add("experiment_1", props.experiment1);
    json.add("experiment_2", props.experiment2);
    json.add("experiment_3", props.experiment3);
  });
}

void encode(JsonObjectWriter& body, const Telemetry::Tests& tests) {
  body.addObject("tests", [&](JsonObjectWriter& json) {
    for (const auto& [experiment, option] : tests) json.add(rawValue(experiment), option);
  });
}

/// The body around the members that `encodeRest` adds after those that all bodies have.
template <class EncodeRest>
std::optional<std::string> encodedBody(const Telemetry& telemetry, const LogSite& caller,
                                       EncodeRest encodeRest) {
  constexpr std::size_t usualSize = 1024;
  std::string text;
  text.reserve(usualSize);
  try {
    JsonObjectWriter body(text);
    body.add("synthetic_id", telemetry.syntheticId);
    body.add("app_type", telemetry.appType);
    body.add("version", telemetry.appVersion);
    encode(body, Telemetry::userAgent());
    encodeRest(body);
    body.finish();
  } catch (const std::invalid_argument& error) {
    logError(caller, "Failed to encode event {}", error.what());
    return std::nullopt;
  }
  return text;
}

std::optional<URLRequest> postRequest(std::string url, double timeoutInterval,
                                      std::optional<std::string> body) {
  if (!body) return std::nullopt;
  URLRequest request;
  request.url = std::move(url);
  request.method = "POST";
  request.headers.set("Content-Type", "application/json");
  request.body = *std::move(body);
  request.timeoutInterval = timeoutInterval;
  return request;
}

Telemetry::ExperimentVersion decodedVersion(const nlohmann::json& versions, const char* key) {
  const nlohmann::json& version = versions.at(key);
  return {version.at("experiment_name").get<std::string>(),
          version.at("version_name").get<std::string>()};
}

}  // namespace

Telemetry::Telemetry(std::string syntheticId_, AppType appType_, std::string appVersion_)
    : syntheticId(std::move(syntheticId_)), appType(appType_), appVersion(std::move(appVersion_)) {}

std::optional<std::string> Telemetry::eventJSONData(const Event& event, const Props& props) const {
  return encodedBody(*this, site("eventJSONData(event:props:)"), [&](JsonObjectWriter& body) {
    std::visit([&body](const auto& record) { encode(body, record); }, event);
    encode(body, props);
  });
}

std::optional<std::string> Telemetry::startSessionEventJSONData(const Props& props,
                                                                const Tests& tests) const {
  return encodedBody(*this, site("startSessionEventJSONData(props:tests:)"),
                     [&](JsonObjectWriter& body) {
                       encode(body, props);
                       encode(body, tests);
                     });
}

std::optional<URLRequest> Telemetry::eventRequest(std::string url, double timeoutInterval,
                                                  const Event& event, const Props& props) const {
  return postRequest(std::move(url), timeoutInterval, eventJSONData(event, props));
}

std::optional<URLRequest> Telemetry::startSessionRequest(std::string url, double timeoutInterval,
                                                         const Props& props,
                                                         const Tests& tests) const {
  return postRequest(std::move(url), timeoutInterval, startSessionEventJSONData(props, tests));
}

std::optional<Telemetry::StartSessionResponse> Telemetry::decodeStartSessionResponse(
    std::string_view data) {
  try {
    const nlohmann::json response = nlohmann::json::parse(data);
    const nlohmann::json& versions = response.at("versions");
    return StartSessionResponse{{decodedVersion(versions, "experiment_1"),
                                 decodedVersion(versions, "experiment_2"),
                                 decodedVersion(versions, "experiment_3")}};
  } catch (const nlohmann::json::exception& error) {
    logError(site("decodeStartSessionResponse(_:)"), "Failed to decode start session response {}",
             jsonErrorText(error));
    return std::nullopt;
  }
}

Telemetry::UserAgent Telemetry::makeUserAgent(HardwareRegistry& registry) {
  return {{"Apple", SystemInfo::getHardwareModel(registry)},
          {"mac", std::string(platformOf(SystemInfo::getCPUType(registry))),
           SystemInfo::getOSVersion(registry)}};
}

const Telemetry::UserAgent& Telemetry::userAgent() {
  static constinit LazyStatic<UserAgent> agent;
  return agent.get([] { return makeUserAgent(HardwareRegistry::shared()); });
}

const std::string& Telemetry::defaultAppLocale() {
  static constinit LazyStatic<std::string> locale;
  return locale.get([] { return applicationLanguage().value_or(std::string(fallbackLanguage)); });
}

const std::string& Telemetry::defaultSystemLocale() {
  static constinit LazyStatic<std::string> locale;
  return locale.get([] {
    const auto languages = preferredLanguages();
    return languages.empty() ? std::string(fallbackLanguage) : languages.front();
  });
}

}  // namespace velum
