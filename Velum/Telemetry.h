#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Velum/Base/RawValue.h"
#include "Velum/HTTP/URLRequest.h"
#include "Velum/Platform/HardwareRegistry.h"

namespace velum {

/// Makes the statistics service's request bodies of product events, and reads its answers. Sending
/// them and keeping identifiers is the caller's affair. An object is used by one thread at a time;
/// failures are logged, nothing throws but std::bad_alloc.
///
/// Bodies are JSON without blanks whose keys stand in the order of the fields below; what is absent
/// is left out. Equal records give equal bytes.
class Telemetry {
 public:
  enum class AppType : std::uint8_t { kestrelDesk, ploverDesk };
  enum class Theme : std::uint8_t { light, dark, systemDark, systemLight };
  enum class WebsiteExclusions : std::uint8_t { general, selective };
  enum class AppExclusions : std::uint8_t { general, selective };
  enum class BinaryState : std::uint8_t { on, off };
  enum class RetentionCohort : std::uint8_t { day1, week1, month1, longtime };
  enum class UpdateIntervalSource : std::uint8_t { systemDefault, custom };
  enum class OperatingMode : std::uint8_t { vpn, integrated };
  enum class Experiment : std::uint8_t { experiment1, experiment2, experiment3 };
  enum class ExperimentOption : std::uint8_t { optA, optB };

  /// The machine and its system, part of every body.
  struct Device {
    std::string brand;  ///< Always "Apple".
    std::string model;
  };
  struct OS {
    std::string name;      ///< Always "mac".
    std::string platform;  ///< "arm", "x64", or empty for another processor.
    std::string version;
  };
  struct UserAgent {
    Device device;
    OS os;
  };

  struct Pageview {
    std::string name;
    std::string refName;
  };
  struct CustomEvent {
    std::string name;
    std::string refName;
    std::string action;
    std::string label;
  };
  using Event = std::variant<Pageview, CustomEvent>;

  /// The user's settings at the time of the event.
  struct Props {
    std::optional<WebsiteExclusions> websiteExclusions = {};
    std::optional<AppExclusions> appExclusions = {};
    std::string appLocale = defaultAppLocale();
    std::string systemLocale = defaultSystemLocale();
    std::optional<bool> loggedIn = {};
    std::optional<Theme> theme = {};
    std::optional<BinaryState> killSwitch = {};
    std::optional<BinaryState> stats = {};
    std::optional<RetentionCohort> retentionCohort = {};
    std::optional<UpdateIntervalSource> updateInterval = {};
    std::optional<OperatingMode> operatingMode = {};
    std::optional<std::string> experiment1 = {};
    std::optional<std::string> experiment2 = {};
    std::optional<std::string> experiment3 = {};
  };

  /// Which option of each experiment this installation takes part with.
  using Tests = std::map<Experiment, ExperimentOption>;

  /// The service's answer to a start-session request.
  struct ExperimentVersion {
    std::string experimentName;
    std::string versionName;
  };
  struct ExperimentVersions {
    ExperimentVersion experiment1;
    ExperimentVersion experiment2;
    ExperimentVersion experiment3;
  };
  struct StartSessionResponse {
    ExperimentVersions versions;
  };

  Telemetry(std::string syntheticId_, AppType appType_, std::string appVersion_);

  std::string syntheticId;  ///< See createSyntheticId.
  AppType appType;
  std::string appVersion;

  /// What stands for every text that no identifier can be made of.
  static constexpr std::string_view invalidSyntheticId = "aaaaaaaa";

  /// Eight characters of "abcdef123456789" that stand for an installation: the number that `text`
  /// is, in hexadecimal, and failing that its characters' ASCII codes written one after the other,
  /// in decimal. `invalidSyntheticId`, and an error in the log, when that is no number of 64 bits
  /// but 0.
  static std::string createSyntheticId(std::string_view text);

  /// The body for one event; nothing when a text is not UTF-8.
  std::optional<std::string> eventJSONData(const Event& event, const Props& props) const;
  /// The body for the start of a session.
  std::optional<std::string> startSessionEventJSONData(const Props& props,
                                                       const Tests& tests) const;

  /// POST requests with these bodies to `url`; nothing without a body. `timeoutInterval` is in
  /// seconds.
  std::optional<URLRequest> eventRequest(std::string url, double timeoutInterval,
                                         const Event& event, const Props& props) const;
  std::optional<URLRequest> startSessionRequest(std::string url, double timeoutInterval,
                                                const Props& props, const Tests& tests) const;

  /// Keys that are not known here are passed over. Nothing when one is missing or is not of its
  /// type, or the data is no JSON.
  static std::optional<StartSessionResponse> decodeStartSessionResponse(std::string_view data);

  /// This machine's; made once per process.
  static const UserAgent& userAgent();
  static UserAgent makeUserAgent(HardwareRegistry& registry);
  /// The language of this program and the user's first one, "en-US" when there is none. Both are
  /// found out once per process.
  static const std::string& defaultAppLocale();
  static const std::string& defaultSystemLocale();
};

template <>
struct RawValues<Telemetry::AppType> {
  static constexpr std::array<std::string_view, 2> texts{"KESTREL_DESK", "PLOVER_DESK"};
};
template <>
struct RawValues<Telemetry::Theme> {
  static constexpr std::array<std::string_view, 4> texts{"LIGHT", "DARK", "SYSTEM_DARK",
                                                         "SYSTEM_LIGHT"};
};
template <>
struct RawValues<Telemetry::WebsiteExclusions> {
  static constexpr std::array<std::string_view, 2> texts{"GENERAL", "SELECTIVE"};
};
template <>
struct RawValues<Telemetry::AppExclusions> {
  static constexpr std::array<std::string_view, 2> texts{"GENERAL", "SELECTIVE"};
};
template <>
struct RawValues<Telemetry::BinaryState> {
  static constexpr std::array<std::string_view, 2> texts{"ON", "OFF"};
};
template <>
struct RawValues<Telemetry::RetentionCohort> {
  static constexpr std::array<std::string_view, 4> texts{"DAY_1", "WEEK_1", "MONTH_1", "LONGTIME"};
};
template <>
struct RawValues<Telemetry::UpdateIntervalSource> {
  static constexpr std::array<std::string_view, 2> texts{"SYSTEM_DEFAULT", "CUSTOM"};
};
template <>
struct RawValues<Telemetry::OperatingMode> {
  static constexpr std::array<std::string_view, 2> texts{"VPN", "INTEGRATED"};
};
template <>
struct RawValues<Telemetry::Experiment> {
  static constexpr std::array<std::string_view, 3> texts{"experiment_1", "experiment_2",
                                                         "experiment_3"};
};
template <>
struct RawValues<Telemetry::ExperimentOption> {
  static constexpr std::array<std::string_view, 2> texts{"a_def", "b"};
};

}  // namespace velum
