#include "Velum/Platform/Linux/Workspace/WorkspaceLinux.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <iterator>

#include "Velum/Base/LazyValue.h"
#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/AbsolutePath.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/Processes/ProcessStatus.h"
#include "Velum/Platform/Linux/Processes/UserManager.h"
#include "Velum/Platform/Linux/Workspace/FileManager.h"
#include "Velum/Platform/Linux/Workspace/OpenAttempt.h"

namespace velum {
namespace {

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/Workspace", function, where};
}

/// A service ends as a whole when its first process does. Who waits for that end from inside the
/// same service has to leave it first.
void leaveServiceOf(pid_t process) {
  const std::optional<std::string> own = controlGroupOf(::getpid());
  if (!own || !own->ends_with(".service") || controlGroupOf(process) != own) return;
  constexpr std::chrono::seconds timeout(1);
  const TransientScope scope{fmt::format("velum-observer-{}.scope", ::getpid()),
                             fmt::format("Observer of process {}", process), ::getpid()};
  if (const std::optional<std::string> error = startScope(scope, timeout)) {
    logDebug(site("addObserver(_:forKeyPath:processOfInterest:)"), "This process stays in {}: {}",
             *own, *error);
  }
}

/// Why there is no application at `path`.
std::string reasonForNoBundle(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return systemErrorText(errno);
  if (S_ISDIR(status.st_mode)) return "is not an application: it has no folder Contents";
  if (S_ISREG(status.st_mode)) return "is not an application: it has no usable Exec, or is hidden";
  return "is not an application";
}

/// What opening takes at one time, and some more.
constexpr std::size_t descriptorsForOpening = 8;

void requireDescriptors() {
  std::array<UniqueFd, descriptorsForOpening> spare;
  for (UniqueFd& descriptor : spare) {
    descriptor.reset(retryInterrupted([] { return ::open("/", O_PATH | O_CLOEXEC); }));
    if (!descriptor) throw lastSystemError("prepareToOpen, open (/)");
  }
}

std::uint64_t ownStartTime() {
  const std::optional<ProcessStatus> own = ProcessStatus::of(::getpid());
  return own ? own->startTime : UINT64_MAX;  // without /proc nothing can be told apart
}

}  // namespace

Workspace& Workspace::shared() {
  static constinit LazyStatic<WorkspaceLinux> instance;
  return instance.get([] { return WorkspaceLinux(ownStartTime()); });
}

std::vector<RunningApplication> WorkspaceLinux::runningApplications() {
  std::vector<pid_t> ids = processes().ids();
  for (const Watch& watch : watches_) {
    // The pin alone knows: the number may be a later process's, or hidden from this user.
    std::erase(ids, watch.process);
    if (!hasEnded(watch)) ids.push_back(watch.process);
  }
  std::vector<RunningApplication> applications;
  applications.reserve(ids.size());
  for (const pid_t id : ids) {
    applications.emplace_back(id, [this](pid_t pid) { return processes().bundleIdentifier(pid); });
  }
  return applications;
}

void WorkspaceLinux::addObserver(WorkspaceObserver& observer, std::string_view keyPath,
                                 pid_t processOfInterest) {
  Watch watch;
  watch.pin = pinned(processOfInterest);
  watch.number = ++lastWatch_;
  watch.observer = &observer;
  watch.keyPath = keyPath;
  watch.process = processOfInterest;
  const auto report = [this, number = watch.number] { processEnded(number); };
  if (watch.pin) {
    watch.end = DispatchSource::readable(watch.pin.get(), DispatchQueue::main(), report);
    leaveServiceOf(processOfInterest);
  } else {
    watch.hasEnded = true;
    DispatchQueue::main().async(report);
  }
  watches_.push_back(std::move(watch));
  processes_.reset();  // it knows nothing of this process of interest
  DispatchQueue::main().async([this] { warmUp(); });
}

void WorkspaceLinux::prepareToOpen(const std::string& path) {
  requireDescriptors();
  pathToOpen_ = absolutePath(path);
}

/// What the kernel is asked for the first time, and code that runs for the first time, takes
/// several times as long as later. So that happens while there is nothing to do yet, and not when
/// the application has ended and every moment counts.
void WorkspaceLinux::warmUp() {
  if (std::ranges::all_of(watches_, hasEnded)) return;
  if (const int error = sources_.processes.open(); error != 0) {
    logWarning(site("prepareToOpen(_:)"),
               "Can't list the processes, so none is found to be running already: /proc: {}",
               systemErrorText(error));
  }
  sources_.desktop.learn(sources_.processes.ids());
  if (std::ranges::all_of(watches_, hasEnded)) return;  // the work has begun
  ProcessTable& table = processes();
  for (const pid_t id : table.ids()) static_cast<void>(table.bundleIdentifier(id));
  if (pathToOpen_.empty()) return;
  if (const std::optional<Bundle> bundle = Bundle::at(pathToOpen_)) log_.prepare(*bundle);
}

void WorkspaceLinux::removeObserver(WorkspaceObserver& observer, std::string_view keyPath) {
  watches_.remove_if(
      [&](const Watch& watch) { return watch.observer == &observer && watch.keyPath == keyPath; });
}

bool WorkspaceLinux::isOrphaned(pid_t launcher) {
  const pid_t parent = ::getppid();
  return parent == 1 || (parent != launcher && isUserManager(parent));
}

void WorkspaceLinux::openApplication(const std::string& path,
                                     const OpenConfiguration& configuration,
                                     OpenCompletion completion) {
  // The new process works in another folder.
  const std::string fullPath = absolutePath(path);
  std::optional<Bundle> bundle = Bundle::at(fullPath);
  if (!bundle || !bundle->obstacle.empty()) {
    const std::string error =
        repairedUtf8(fullPath) + ": " + (bundle ? bundle->obstacle : reasonForNoBundle(fullPath));
    OpenAttempt::logFailure(error);
    DispatchQueue::main().async([completion = std::move(completion), error] { completion(error); });
    return;
  }
  const auto findInstance = [this](const Bundle& wanted, const std::string& canonicalPath,
                                   const std::optional<LaunchRecord>& lastLaunch) {
    return instanceOf(wanted, canonicalPath, lastLaunch);
  };
  std::make_shared<OpenAttempt>(std::move(*bundle), configuration, findInstance,
                                std::move(completion), sources_.launches, log_, patience_)
      ->start();
}

/// The list of this turn of the main loop serves again when nobody launched the application since.
std::optional<pid_t> WorkspaceLinux::instanceOf(const Bundle& bundle,
                                                const std::string& canonicalPath,
                                                const std::optional<LaunchRecord>& lastLaunch) {
  if (lastLaunch && !processes().knows(*lastLaunch)) processes_.reset();
  return processes().instanceOf(bundle, canonicalPath);
}

void WorkspaceLinux::activateFileViewer(const std::vector<std::string>& paths) {
  std::vector<std::string> fullPaths;
  std::ranges::transform(paths, std::back_inserter(fullPaths), absolutePath);
  constexpr std::chrono::seconds timeout(20);  // the first file manager of a session starts slowly
  if (const std::optional<std::string> error = showItems(fullPaths, timeout)) {
    logError(site("activateFileViewer"), "Can't show {}: {}", fmt::join(fullPaths, ", "), *error);
  }
}

/// Nothing when the process has gone.
UniqueFd WorkspaceLinux::pinned(pid_t process) const {
  // Not through <sys/pidfd.h>: that header of glibc 2.36 is not usable from C++.
  UniqueFd pin(static_cast<int>(::syscall(SYS_pidfd_open, process, 0U)));
  if (!pin) {
    // EINVAL and ENOENT: the number of no process, but perhaps of a thread.
    if (errno == ESRCH || errno == EINVAL || errno == ENOENT) return {};
    throw lastSystemError(fmt::format("addObserver, pidfd_open ({})", process));
  }
  // Read after the process is pinned: it is this one's, or nothing.
  const std::optional<ProcessStatus> status = ProcessStatus::of(process);
  if (status && status->startTime > newestStart_) {
    logDebug(site("addObserver(_:forKeyPath:processOfInterest:)"),
             "The number {} belongs to a later process", process);
    return {};
  }
  return pin;
}

bool WorkspaceLinux::hasEnded(const Watch& watch) {
  if (watch.hasEnded) return true;
  pollfd state{watch.pin.get(), POLLIN, 0};
  return retryInterrupted([&] { return ::poll(&state, 1, 0); }) == 1;
}

void WorkspaceLinux::processEnded(std::uint64_t number) {
  const auto watch = std::find_if(watches_.begin(), watches_.end(),
                                  [=](const Watch& each) { return each.number == number; });
  if (watch == watches_.end()) return;
  watch->hasEnded = true;
  processes_.reset();
  // Done after what the observer is there for, which must not wait for anybody who holds the log;
  // the observer may remove the watch.
  const pid_t process = watch->process;
  const UniqueFd pin = std::move(watch->pin);
  const std::unique_ptr<DispatchSource> end = std::move(watch->end);
  watch->observer->observeValue(runningApplicationsKeyPath);
  logDebug(site("processEnded(_:)"), "Process {} has ended", process);
}

ProcessTable& WorkspaceLinux::processes() {
  if (!processes_) {
    processes_ = std::make_unique<ProcessTable>(processesOfInterest(), sources_);
    DispatchQueue::main().async([this] { processes_.reset(); });
  }
  return *processes_;
}

std::vector<pid_t> WorkspaceLinux::processesOfInterest() const {
  std::vector<pid_t> ids;
  for (const Watch& watch : watches_) ids.push_back(watch.process);
  return ids;
}

}  // namespace velum
