// What telemetry costs its callers: the body of an event, and finding out what machine this is.

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/Machine/HardwareRegistryLinux.h"
#include "Velum/SystemInfo.h"
#include "Velum/Telemetry.h"
#include "bench/support/Table.h"

namespace {

using velum::SystemInfo;
using velum::Telemetry;

void benchBody() {
  constexpr int rounds = 21;
  constexpr int count = 20'000;
  const Telemetry telemetry("bcdefabc", Telemetry::AppType::kestrelDesk, "2.14.3");
  const Telemetry::Event event =
      Telemetry::CustomEvent{"connect_button", "main_window", "click", "https://example.com/de"};
  Telemetry::Props props;
  props.websiteExclusions = Telemetry::WebsiteExclusions::general;
  props.loggedIn = true;
  props.theme = Telemetry::Theme::systemDark;
  props.killSwitch = Telemetry::BinaryState::on;
  props.stats = Telemetry::BinaryState::off;
  props.retentionCohort = Telemetry::RetentionCohort::month1;
  props.operatingMode = Telemetry::OperatingMode::vpn;
  props.experiment1 = "a_def";
  const auto object = nlohmann::ordered_json::parse(telemetry.eventJSONData(event, props).value());

  std::size_t size = 0;  // keeps the work from being left out
  const bench::Run body = [&] {
    return bench::timed([&] {
      for (int call = 0; call < count; ++call)
        size += telemetry.eventJSONData(event, props)->size();
    });
  };
  const bench::Run dump = [&] {
    return bench::timed([&] {
      for (int call = 0; call < count; ++call) size += object.dump().size();
    });
  };
  const auto times = bench::interleaved(rounds, {body, dump});
  bench::report("event body, from its records", times[0], "dump of a finished JSON value", times[1],
                {1.1}, count);
  if (size == 0) throw std::length_error("no body");
}

// The caches of SystemInfo are passed by; the system's own are warm, as on a machine that runs.
void benchSystemInfo() {
  constexpr int rounds = 101;
  constexpr double mostTime = 2e6;  // nanoseconds
  bench::Times times;
  for (int round = 0; round < rounds; ++round) {
    times.push_back(bench::timed([] {
      velum::HardwareRegistryLinux registry;
      SystemInfo::readSerialNumber(registry);
      SystemInfo::readMac(registry);
      SystemInfo::getCPUType(registry);
      SystemInfo::getHardwareModel(registry);
      SystemInfo::getOSVersion(registry);
    }));
  }
  const double median = bench::quantile(times, 0.5);
  bench::report("machine information, all but extensions", fmt::format("{:.0f} us", median / 1e3),
                fmt::format("the first time: {:.0f} us", times.front() / 1e3), "<= 2 ms",
                std::max(median, times.front()) <= mostTime);
}

}  // namespace

int main() {
  velum::Logger::shared().setHandlers({});
  benchSystemInfo();  // first, while nothing of it has run
  benchBody();
}
