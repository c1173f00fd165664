#include "Velum/Platform/Linux/Workspace/OpenAttempt.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>

#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Base/Termination.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Linux/Processes/ControlGroup.h"
#include "Velum/Platform/Linux/Processes/ProcessStatus.h"
#include "Velum/Platform/Linux/Processes/UserBus.h"
#include "Velum/Platform/Linux/Processes/UserManager.h"
#include "Velum/Platform/Spawn.h"

namespace velum {
namespace {

/// How long a new process is watched before it counts as opened.
constexpr std::chrono::milliseconds launchGrace(250);
/// How long the service manager may take; a busy one answers within some tens of milliseconds.
constexpr std::chrono::seconds scopeTimeout(1);

constexpr std::string_view openName = "openApplication(at:configuration:completion:)";

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/Workspace", function, where};
}

/// The path from the root on, without links. The kernel knows it in one step; a look at each of
/// its parts is left to where it can't be asked.
std::string canonical(const std::string& path) {
  if (const UniqueFd place(::open(path.c_str(), O_PATH | O_CLOEXEC)); place) {
    std::array<char, PATH_MAX> target;  // NOLINT(*-member-init): filled just below
    const std::string name = fmt::format("/proc/self/fd/{}", place.get());
    const ssize_t size = ::readlink(name.c_str(), target.data(), target.size());
    if (size > 0 && target[0] == '/') return {target.data(), static_cast<std::size_t>(size)};
  }
  std::error_code error;
  const std::filesystem::path resolved = std::filesystem::canonical(path, error);
  return error ? path : resolved.native();
}

/// What the application is called where it has no identifier.
std::string nameOf(const Bundle& bundle) {
  if (bundle.identifier && !bundle.identifier->empty()) return *bundle.identifier;
  return std::filesystem::path(bundle.path).stem().native();
}

/// The system log as an output; none where there is no system log, or where it is so busy that
/// one would have to wait for it, which the library's function for this does.
UniqueFd systemLogStream(const std::string& name) {
  UniqueFd stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  constexpr sockaddr_un address{AF_UNIX, "/run/systemd/journal/stdout"};
  if (!stream ||
      ::connect(stream.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  constexpr int room = 8 << 20;  // bytes; the system may give less
  ::setsockopt(stream.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
  // The identifier, no unit, the priority, no priorities in the text, nothing passed on.
  const std::string header =
      fmt::format("{}\n\n{}\n0\n0\n0\n0\n", name.substr(0, name.find('\n')), LOG_INFO);
  if (::send(stream.get(), header.data(), header.size(), MSG_NOSIGNAL) !=
          static_cast<ssize_t>(header.size()) ||
      ::shutdown(stream.get(), SHUT_RD) != 0 || ::fcntl(stream.get(), F_SETFL, 0) != 0) {
    return {};
  }
  return stream;
}

std::vector<std::string> environmentFor(const Bundle& bundle) {
  constexpr const char* bundlePath = "VELUM_BUNDLE_PATH";
  std::vector<std::string> environment = environmentWithout({"VELUM_READY_FD", bundlePath});
  environment.push_back(fmt::format("{}={}", bundlePath, bundle.path));
  return environment;
}

/// Why a process ended, when that was not in order.
std::optional<std::string> failureOf(int status) {
  const Termination end = Termination::ofWaitStatus(status);
  if (end == Termination{}) return std::nullopt;
  if (end.reason == Termination::Reason::exit) return end.text();
  const char* const name = ::sigdescr_np(end.status);
  return fmt::format("{} ({})", end.text(), name != nullptr ? name : "unknown");
}

}  // namespace

void SystemLogStream::prepare(const Bundle& bundle) {
  name_ = nameOf(bundle);
  stream_ = systemLogStream(name_);
}

UniqueFd SystemLogStream::take(const Bundle& bundle) {
  UniqueFd prepared = std::move(stream_);
  // The other end is gone when the journal was ended and not only started again.
  pollfd state{prepared.get(), POLLOUT, 0};
  if (prepared && name_ == nameOf(bundle) && ::poll(&state, 1, 0) >= 0 &&
      (state.revents & (POLLERR | POLLHUP)) == 0) {
    return prepared;
  }
  return systemLogStream(nameOf(bundle));
}

OpenAttempt::OpenAttempt(Bundle bundle, const OpenConfiguration& configuration,
                         FindInstance findInstance, Workspace::OpenCompletion completion,
                         LaunchFolder& launches, SystemLogStream& log,
                         std::chrono::nanoseconds patience)
    : bundle_(std::move(bundle)),
      configuration_(configuration),
      findInstance_(std::move(findInstance)),
      completion_(std::move(completion)),
      canonicalPath_(canonical(bundle_.path)),
      lock_(launches, bundle_.identifier, canonicalPath_),
      log_(log),
      patienceEnd_(deadlineAfter(patience)) {}

void OpenAttempt::start() {
  if (lock_.tryAcquire()) {
    proceed();
    return;
  }
  waitForOthers();
  logDebug(site(openName), "Waiting for another opener of {}", bundle_.path);
}

/// The system offers no wait for a lock that ends, so it is asked for again and again.
void OpenAttempt::waitForOthers() {
  constexpr std::chrono::milliseconds pause(5);
  DispatchQueue::main().asyncAfter(pause, [self = shared_from_this()] {
    const bool isHeld = self->lock_.tryAcquire();
    if (!isHeld && std::chrono::steady_clock::now() < self->patienceEnd_) {
      self->waitForOthers();
      return;
    }
    if (!isHeld) self->lock_.giveUp();
    self->proceed();
  });
}

void OpenAttempt::proceed() {
  if (const std::optional<pid_t> running = runningInstance()) {
    conclude(std::nullopt);
    logDebug(site(openName), "Process {} is an instance already", *running);
  } else {
    launch();
  }
}

std::optional<pid_t> OpenAttempt::runningInstance() const {
  if (configuration_.createsNewApplicationInstance) return std::nullopt;
  return findInstance_(bundle_, canonicalPath_, lock_.record());
}

void OpenAttempt::launch() {
  try {
    process_ = spawnProcess();
  } catch (const SystemError& error) {
    conclude(reasonOf(error));
    return;
  }
  recordLaunch();
  watchProcess();
  moveOutOfOldControlGroup();
  // Now that nothing waits for it: whoever holds the log may hold it for some time.
  if (!lock_.problem().empty()) logDebug(site(openName), "{}", lock_.problem());
}

std::string OpenAttempt::reasonOf(const SystemError& error) const {
  // The code does not say whether the program or the folder is meant.
  std::error_code ignored;
  const bool isFolderMissing = !std::filesystem::is_directory(bundle_.directory, ignored);
  return fmt::format("{}: {}", isFolderMissing ? bundle_.directory : bundle_.executable,
                     systemErrorText(error.code()));
}

pid_t OpenAttempt::spawnProcess() const {
  SpawnOptions options;
  options.executable = bundle_.executable;
  options.arguments = {bundle_.executable};
  options.arguments.insert(options.arguments.end(), bundle_.arguments.begin(),
                           bundle_.arguments.end());
  options.environment = environmentFor(bundle_);
  options.directory = bundle_.directory;
  options.newSession = true;
  const UniqueFd log = log_.take(bundle_);
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
    logDebug(site(openName), "Process {} can't be watched: {}", process_, error.what());
  }
  DispatchQueue::main().asyncAfter(launchGrace,
                                   [self = shared_from_this()] { self->graceEnded(); });
}

void OpenAttempt::moveOutOfOldControlGroup() {
  const TransientScope scope{applicationScopeName(nameOf(bundle_), process_), nameOf(bundle_),
                             process_};
  if (!userBusAddress()) {  // no reason to wake a thread beside the new application
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
  const LogSite place = site(openName);
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
  if (info.si_pid != 0) {
    // It just ended, and processEnded is about to be called, unless nobody could be told.
    if (!processEnd_) processEnded(reapChild(process_));
    return;
  }
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
  DispatchQueue::main().async([completion = std::move(completion_), error] { completion(error); });
  if (error) logFailure(*error);
}

void OpenAttempt::logFailure(const std::string& error) {
  logDebug(site(openName), "Not opened: {}", error);
}

}  // namespace velum
