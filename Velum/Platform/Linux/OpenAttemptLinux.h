#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Velum/Platform/Bundle.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/LaunchLockLinux.h"
#include "Velum/Platform/Linux/UserManagerLinux.h"
#include "Velum/Platform/Workspace.h"

namespace velum {

/// One call of Workspace::openApplication, from the bundle's path to the answer. Lives on the
/// main queue, kept alive by the event it waits for: the launch lock, the end of the new process
/// and the time it is given to prove that it runs.
class OpenAttempt : public std::enable_shared_from_this<OpenAttempt> {
 public:
  /// Finds an instance of the bundle (at that canonical path). `isFresh` asks for the processes
  /// of this moment.
  using FindInstance =
      std::function<std::optional<pid_t>(const Bundle&, const std::string& path, bool isFresh)>;

  /// `path` is absolute.
  OpenAttempt(Bundle bundle, const OpenConfiguration& configuration, FindInstance findInstance,
              Workspace::OpenCompletion completion);

  void start();

 private:
  void proceedLocked(bool hasWaited);
  std::optional<pid_t> runningInstance(bool hasWaited) const;
  void launch();
  pid_t spawnProcess() const;
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
  pid_t process_ = -1;
  std::unique_ptr<DispatchSource> processEnd_;
  bool hasProvenItself_ = false;
  bool isOutOfOldControlGroup_ = false;
  bool isConcluded_ = false;
};

}  // namespace velum
