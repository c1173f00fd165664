#include "vpn_relauncher/TerminationListener.h"

#include <algorithm>
#include <utility>

#include "Velum/Base/Deadline.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Bundle.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "vpn_relauncher/main";
constexpr std::string_view relaunchWithRetriesName = "relaunchWithRetries()";

// The pauses are 0.1 s times this to the power of 1 to 10: 0.15 s to 4.87 s, 14.83 s in all.
constexpr double delayGrowth = 1.475;

LogSite site(CallPlace where = CallPlace::current()) {
  return {sourceFile, relaunchWithRetriesName, where};
}

}  // namespace

TerminationListener::TerminationListener(std::string executable, pid_t parentProcessId,
                                         Workspace& workspace, DispatchQueue& mainQueue,
                                         Exit exitProcess)
    : executable_(std::move(executable)),
      parentProcessId_(parentProcessId),
      workspace_(workspace),
      mainQueue_(mainQueue),
      exitProcess_(std::move(exitProcess)) {
  if (const auto bundle = Bundle::at(executable_)) appBundleIdentifier_ = bundle->identifier;
  workspace_.addObserver(*this, Workspace::runningApplicationsKeyPath, parentProcessId_);
  workspace_.prepareToOpen(executable_);
  if (workspace_.isOrphaned(parentProcessId_) && !isRelaunching_) startRelaunching();
}

TerminationListener::~TerminationListener() {
  workspace_.removeObserver(*this, Workspace::runningApplicationsKeyPath);
}

void TerminationListener::observeValue(std::optional<std::string_view> keyPath) {
  if (keyPath != Workspace::runningApplicationsKeyPath) return;
  if (isRelaunching_) return;
  const auto applications = workspace_.runningApplications();
  const bool isStillAlive = std::ranges::any_of(applications, [this](const auto& application) {
    return application.processIdentifier() == parentProcessId_;
  });
  if (!isStillAlive && !isRelaunching_) startRelaunching();
}

void TerminationListener::startRelaunching() {
  isRelaunching_ = true;
  relaunchWithRetries(std::make_shared<Retries>());
}

// The instance that is quitting does not count: it may still be shutting down.
bool TerminationListener::isAppRunning() const {
  if (!appBundleIdentifier_) return false;
  const auto applications = workspace_.runningApplications();
  return std::ranges::any_of(applications, [this](const auto& application) {
    return application.processIdentifier() != parentProcessId_ &&
           application.bundleIdentifier() == appBundleIdentifier_;
  });
}

void TerminationListener::relaunchWithRetries(const std::shared_ptr<Retries>& retries) {
  if (isAppRunning()) {
    logInfo(site(), "App is already running, no need to relaunch");
    exitProcess_(EXIT_SUCCESS);
    return;
  }
  const OpenConfiguration configuration{.createsNewApplicationInstance = false};
  workspace_.openApplication(
      executable_, configuration,
      [this, retries](const std::optional<std::string>& error) { finishAttempt(retries, error); });
}

void TerminationListener::finishAttempt(const std::shared_ptr<Retries>& retries,
                                        const std::optional<std::string>& error) {
  if (!error) {
    logInfo(site(), "App was relaunched successfully");
    exitProcess_(EXIT_SUCCESS);
    return;
  }
  if (retries->attemptsLeft < 1) {
    logError(site(), "Restart failed with error: {}", *error);
    exitProcess_(EXIT_FAILURE);
    return;
  }
  --retries->attemptsLeft;
  logWarning(site(), "Restart failed. Attempts left: {}", retries->attemptsLeft);
  retries->delay *= delayGrowth;
  mainQueue_.asyncAfter(bounded(retries->delay), [this, retries] { relaunchWithRetries(retries); });
}

}  // namespace velum
