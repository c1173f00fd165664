#include "Velum/Platform/Linux/OpenAttemptLinux.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <systemd/sd-journal.h>

#include <syslog.h>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/ControlGroupLinux.h"
#include "Velum/Platform/Linux/ProcessLinux.h"
#include "Velum/Platform/Linux/UserManagerLinux.h"
#include "Velum/Platform/Posix/Spawn.h"
#include "Velum/String.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

/// How long a new process is watched before it counts as opened.
constexpr std::chrono::milliseconds launchGrace(250);
/// How long the service manager may take; a busy one answers within some tens of milliseconds.
constexpr std::chrono::seconds scopeTimeout(1);

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/Workspace", function, where};
}

std::string canonical(const std::string& path) {
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::canonical(path, error);
  return error ? path : resolved.native();
}

/// What the application is called where it has no identifier.
std::string nameOf(const Bundle& bundle) {
  if (bundle.identifier && !bundle.identifier->empty()) return *bundle.identifier;
  return std::filesystem::path(bundle.path).stem().native();
}

/// The system log as an output; none where there is no system log.
UniqueFd systemLogStream(const std::string& name) {
  return UniqueFd(::sd_journal_stream_fd(name.c_str(), LOG_INFO, 0));
}

std::vector<std::string> environmentFor(const Bundle& bundle) {
  constexpr const char* bundlePath = "VELUM_BUNDLE_PATH";
  std::vector<std::string> environment = environmentWithout({"VELUM_READY_FD", bundlePath});
  environment.push_back(fmt::format("{}={}", bundlePath, bundle.path));
  return environment;
}

/// Why a process ended, when that was not in order.
std::optional<std::string> failureOf(int status) {
  if (WIFSIGNALED(status)) {
    const int number = WTERMSIG(status);
    const char* const name = ::sigdescr_np(number);
    return fmt::format("was killed by signal {} ({})", number, name != nullptr ? name : "unknown");
  }
  if (WEXITSTATUS(status) == 0) return std::nullopt;
  return fmt::format("ended with status {}", WEXITSTATUS(status));
}

}  // namespace

OpenAttempt::OpenAttempt(Bundle bundle, const OpenConfiguration& configuration,
                         FindInstance findInstance, Workspace::OpenCompletion completion)
    : bundle_(std::move(bundle)),
      configuration_(configuration),
      findInstance_(std::move(findInstance)),
      completion_(std::move(completion)),
      canonicalPath_(canonical(bundle_.path)),
      lock_(canonicalPath_) {}

void OpenAttempt::start() {
  if (lock_.tryAcquire()) {
    proceedLocked(false);
    return;
  }
  logDebug(site("openApplication(at:configuration:completion:)"),
           "Waiting for another opener of {}", bundle_.path);
  DispatchQueue::global().async([self = shared_from_this()] {
    self->lock_.acquire();
    DispatchQueue::main().async([self] { self->proceedLocked(true); });
  });
}

void OpenAttempt::proceedLocked(bool hasWaited) {
  if (const std::optional<pid_t> running = runningInstance(hasWaited)) {
    logDebug(site("openApplication(at:configuration:completion:)"),
             "Process {} is an instance already", *running);
    conclude(std::nullopt);
  } else {
    launch();
  }
}

std::optional<pid_t> OpenAttempt::runningInstance(bool hasWaited) const {
  if (configuration_.createsNewApplicationInstance) return std::nullopt;
  return findInstance_(bundle_, canonicalPath_, hasWaited);
}

void OpenAttempt::launch() {
  try {
    process_ = spawnProcess();
  } catch (const SystemError& error) {
    conclude(fmt::format("{}: {}", bundle_.executable, systemErrorText(error.code())));
    return;
  }
  recordLaunch();
  watchProcess();
  moveOutOfOldControlGroup();
}

pid_t OpenAttempt::spawnProcess() const {
  SpawnOptions options;
  options.executable = bundle_.executable;
  options.arguments = {bundle_.executable};
  options.arguments.insert(options.arguments.end(), bundle_.arguments.begin(),
                           bundle_.arguments.end());
  options.environment = environmentFor(bundle_);
  options.directory = std::string("/");  // GCC 12 warns falsely of assigning a literal
  options.newSession = true;
  const UniqueFd log = systemLogStream(nameOf(bundle_));
  if (log) options.standardStreams = {SpawnOptions::nullDevice, log.get(), log.get()};
  return spawn(options);
}

void OpenAttempt::recordLaunch() {
  // Not reaped before watchProcess, so the process is there even if it ended.
  if (const auto status = ProcessStatus::of(process_)) {
    lock_.setRecord({process_, status->startTime, canonicalPath_, bundle_.identifier.value_or("")});
  }
}

void OpenAttempt::watchProcess() {
  try {
    // Kept until the process ends, so that it never becomes a zombie of ours.
    processEnd_ = DispatchSource::childExit(
        process_, DispatchQueue::main(),
        [self = shared_from_this()](int status) { self->processEnded(status); });
  } catch (const SystemError& error) {
    logDebug(site("openApplication(at:configuration:completion:)"),
             "Process {} can't be watched: {}", process_, error.what());
  }
  DispatchQueue::main().asyncAfter(launchGrace,
                                   [self = shared_from_this()] { self->graceEnded(); });
}

void OpenAttempt::moveOutOfOldControlGroup() {
  const TransientScope scope{applicationScopeName(nameOf(bundle_), process_), nameOf(bundle_),
                             process_};
  if (!mayHaveUserBus()) {  // no reason to wake a thread beside the new application
    movedOutOfOldControlGroup(scope, "there is no user bus");
    return;
  }
  DispatchQueue::global().async([self = shared_from_this(), scope] {
    DispatchQueue::main().async([self, scope, error = startScope(scope, scopeTimeout)] {
      self->movedOutOfOldControlGroup(scope, error);
    });
  });
}

void OpenAttempt::movedOutOfOldControlGroup(const TransientScope& scope,
                                            const std::optional<std::string>& error) {
  const LogSite place = site("openApplication(at:configuration:completion:)");
  if (error) {
    logDebug(place, "Process {} stays in this control group: {}", scope.process, *error);
  } else {
    logDebug(place, "Process {} is in {}", scope.process, scope.name);
  }
  isOutOfOldControlGroup_ = true;
  concludeWhenReady();
}

void OpenAttempt::processEnded(int status) {
  const std::unique_ptr<DispatchSource> source = std::move(processEnd_);
  const std::optional<std::string> failure = failureOf(status);
  if (failure && !hasProvenItself_) {
    conclude(fmt::format("{} {}", bundle_.executable, *failure));
    return;
  }
  hasProvenItself_ = true;  // a launcher that handed over
  concludeWhenReady();
}

void OpenAttempt::graceEnded() {
  if (hasProvenItself_ || isConcluded_) return;
  siginfo_t info{};
  const int result = retryInterrupted([&] {
    return ::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT);
  });
  if (result != 0) {
    // Where the program ignores SIGCHLD, the system reaps its children and forgets their status.
    conclude(fmt::format("{} ended at once", bundle_.executable));
    return;
  }
  if (info.si_pid != 0) return;  // it just ended, and processEnded is about to be called
  hasProvenItself_ = true;
  concludeWhenReady();
}

void OpenAttempt::concludeWhenReady() {
  if (hasProvenItself_ && isOutOfOldControlGroup_) conclude(std::nullopt);
}

void OpenAttempt::conclude(std::optional<std::string> error) {
  if (isConcluded_) return;
  isConcluded_ = true;
  lock_.release();
  if (error) error = repairedUtf8(*error);
  DispatchQueue::main().async(
      [completion = std::move(completion_), error = std::move(error)] { completion(error); });
}

}  // namespace velum
