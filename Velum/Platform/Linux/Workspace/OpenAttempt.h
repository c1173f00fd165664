#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Bundle.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Processes/UserManager.h"
#include "Velum/Platform/Linux/Workspace/LaunchLock.h"
#include "Velum/Platform/Workspace.h"

namespace velum {

/// The system log as an application's output, opened before it is needed.
class SystemLogStream {
 public:
  void prepare(const Bundle& bundle);
  /// The stream of that application, the prepared one where it is still good. None where there is
  /// no system log.
  UniqueFd take(const Bundle& bundle);

 private:
  std::string name_;
  UniqueFd stream_;
};

/// One call of Workspace::openApplication, from the bundle's path to the answer. Lives on the
/// main queue, kept alive by the event it waits for: the launch lock, the end of the new process
/// and the time it is given to prove that it runs.
class OpenAttempt : public std::enable_shared_from_this<OpenAttempt> {
 public:
  /// Finds an instance of the bundle (at that canonical path) among the processes as they are
  /// after the application's last launch.
  using FindInstance = std::function<std::optional<pid_t>(
      const Bundle&, const std::string& path, const std::optional<LaunchRecord>& lastLaunch)>;

  /// How long other openers of the application are waited for. One that works needs no two seconds;
  /// one that is stopped shall not keep the user from his application.
  static constexpr std::chrono::seconds usualPatience{5};

  /// The bundle's path is absolute. `launches` and `log` are used on the main queue and must live
  /// as long as it.
  OpenAttempt(Bundle bundle, const OpenConfiguration& configuration, FindInstance findInstance,
              Workspace::OpenCompletion completion, LaunchFolder& launches, SystemLogStream& log,
              std::chrono::nanoseconds patience);

  void start();

  static void logFailure(const std::string& error);

 private:
  void waitForOthers();
  void proceed();
  std::optional<pid_t> runningInstance() const;
  void launch();
  pid_t spawnProcess() const;
  std::string reasonOf(const SystemError& error) const;
  void recordLaunch();
  void watchProcess();
  void moveOutOfOldControlGroup();
  void movedOutOfOldControlGroup(const TransientScope& scope,
                                 const std::optional<std::string>& error);
  void processEnded(int status);
  void graceEnded();
  void concludeWhenReady();
  void conclude(std::optional<std::string> error);

  Bundle bundle_;
  OpenConfiguration configuration_;
  FindInstance findInstance_;
  Workspace::OpenCompletion completion_;
  std::string canonicalPath_;
  LaunchLock lock_;
  SystemLogStream& log_;
  std::chrono::steady_clock::time_point patienceEnd_;
  pid_t process_ = -1;
  std::unique_ptr<DispatchSource> processEnd_;
  bool hasProvenItself_ = false;
  bool isOutOfOldControlGroup_ = false;
  bool isConcluded_ = false;
};

}  // namespace velum
