#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velum {

/// One running application, as the workspace sees it. It stands for a process, not for a number.
class RunningApplication {
 public:
  using Lookup = std::function<std::optional<std::string>(pid_t)>;

  RunningApplication(pid_t processIdentifier, Lookup bundleIdentifier)
      : processIdentifier_(processIdentifier), lookup_(std::move(bundleIdentifier)) {}

  pid_t processIdentifier() const noexcept { return processIdentifier_; }
  /// Nothing for a process that belongs to no known bundle. Looked up when asked, because it
  /// costs a few system calls per process and most askers look for one.
  std::optional<std::string> bundleIdentifier() const { return lookup_(processIdentifier_); }

 private:
  pid_t processIdentifier_;
  Lookup lookup_;
};

/// Told of changes in a workspace's observable properties.
class WorkspaceObserver {
 public:
  WorkspaceObserver() = default;
  WorkspaceObserver(const WorkspaceObserver&) = delete;
  WorkspaceObserver& operator=(const WorkspaceObserver&) = delete;
  virtual ~WorkspaceObserver() = default;

  /// Called on the main queue after the property `keyPath` changed.
  virtual void observeValue(std::optional<std::string_view> keyPath) = 0;
};

/// How an application is to be opened.
struct OpenConfiguration {
  /// False: where an instance of the same bundle runs already, that one counts as opened.
  bool createsNewApplicationInstance = false;
};

/// The user's running applications, and the way to open one.
class Workspace {
 public:
  /// Nothing when the application was opened, else why not, for people.
  using OpenCompletion = std::function<void(const std::optional<std::string>& error)>;

  Workspace() = default;
  Workspace(const Workspace&) = delete;
  Workspace& operator=(const Workspace&) = delete;
  virtual ~Workspace() = default;

  static Workspace& shared();

  static constexpr std::string_view runningApplicationsKeyPath = "runningApplications";

  /// Every live process whose program this user may know, and every process of interest; one that
  /// ended and was not yet reaped by its parent is not live, and no process that runs with another
  /// user's rights has an identifier. Call on the main thread. The list changes between two turns
  /// of the event loop, never within one.
  virtual std::vector<RunningApplication> runningApplications() = 0;

  /// Tells `observer` of changes of `keyPath` until it is removed. `processOfInterest` is the
  /// process whose end the observer waits for: it is pinned now, so that a later process with the
  /// same id is told from it (and is not listed under that id). When it is gone already, the
  /// change is reported from the event loop all the same. Throws SystemError when it is there and
  /// can't be pinned (no descriptor left, or a system without the means). Call on the main thread.
  virtual void addObserver(WorkspaceObserver& observer, std::string_view keyPath,
                           pid_t processOfInterest) = 0;
  virtual void removeObserver(WorkspaceObserver& observer, std::string_view keyPath) = 0;

  /// True when this process lost the one that started it: its parent is the system's first
  /// process, or the session's service manager though that is not `launcher`, the process that is
  /// known to have started us.
  virtual bool isOrphaned(pid_t launcher) = 0;

  /// Says that the application at `path` is going to be opened when a process of interest has
  /// ended. What that takes is tried now, and learned and kept from the event loop, while there is
  /// time. Throws SystemError when it would fail for want of descriptors. Call on the main thread.
  virtual void prepareToOpen(const std::string& /*path*/) {}

  /// Opens the application at `path` and calls `completion` once, on the main queue. The new
  /// process lives in a session of its own with no descriptor of this process, default signals,
  /// this process's environment, the bundle's working directory and the system log as its output;
  /// it outlives this process. It counts as opened when it still runs, or ended with status 0,
  /// after its first 250 ms. Why it failed is logged as well. Call on the main thread.
  virtual void openApplication(const std::string& path, const OpenConfiguration& configuration,
                               OpenCompletion completion) = 0;

  /// Shows the files in the user's file viewer, selected in their folders. Starts the file viewer
  /// where none runs, and may wait for that for some seconds; a failure is logged. Any thread.
  virtual void activateFileViewer(const std::vector<std::string>& paths) = 0;
};

}  // namespace velum
