// Brings a desktop application back after it quit: vpn_relauncher BUNDLE PID.

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/Fatal.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Application.h"
#include "Velum/Relauncher.h"
#include "vpn_relauncher/Locations.h"
#include "vpn_relauncher/LogConfig.h"
#include "vpn_relauncher/TerminationListener.h"

namespace {

using velum::LogSite;

constexpr LogSite site(velum::CallPlace where = velum::CallPlace::current()) {
  return {"vpn_relauncher/main", "vpn_relauncher", where};
}

// An optional sign and decimal digits, nothing else. The application passes its own process id, so
// anything else is a bug of the caller that has to show up as a crash.
std::int32_t parsedProcessId(std::string_view text) {
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) text = {};  // from_chars takes a minus of its own
  }
  std::int32_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) {
    velum::fatal("vpn_relauncher: the process id is not a decimal 32-bit integer");
  }
  return value;
}

std::vector<std::string> arguments;
std::string executablePath;
std::int32_t parentProcessId = 0;
velum::NeverDestroyed<std::unique_ptr<velum::TerminationListener>> listener;

void setUp(int argc, char** argv) {
  velum::LogConfig::setUp(std::string(velum::relauncherSubsystem));
  velum::Logger::shared().setLogLevel(velum::LogLevel::debug);

  arguments.assign(argv, argv + argc);
  if (arguments.size() != 3) {
    velum::logError(site(), "Unexpected arguments count: {}", arguments.size());
    std::exit(EXIT_FAILURE);
  }
  executablePath = arguments[1];
  parentProcessId = parsedProcessId(arguments[2]);
  velum::logInfo(site(), "Looking for :{} {}", executablePath, parentProcessId);
  *listener = std::make_unique<velum::TerminationListener>(executablePath, parentProcessId);
}

}  // namespace

int main(int argc, char* argv[]) {
  auto& application = velum::Application::shared();  // first, so that a lost terminal can't end us
  velum::adoptReadyDescriptor();
  try {
    setUp(argc, argv);
  } catch (const std::exception& error) {  // no descriptors left, or a kernel that is too old
    velum::logError(site(), "Can't watch the application: {}", error.what());
    std::exit(EXIT_FAILURE);
  }
  velum::reportReady();
  application.run();
}
