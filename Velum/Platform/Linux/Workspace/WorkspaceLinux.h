#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Workspace/OpenAttempt.h"
#include "Velum/Platform/Linux/Workspace/ProcessTable.h"
#include "Velum/Platform/Workspace.h"

namespace velum {

/// Lives as long as the process: work that it hands to the main queue refers to it. Belongs to the
/// main thread, but for `activateFileViewer`.
class WorkspaceLinux final : public Workspace {
 public:
  /// A process of interest that started later than `newestStart` (see ProcessStatus::startTime)
  /// is not the one that is meant but a later one with its number: whoever asks knew the number
  /// before this program started. Other openers of an application are waited for for `patience`.
  explicit WorkspaceLinux(std::uint64_t newestStart,
                          std::chrono::nanoseconds patience = OpenAttempt::usualPatience)
      : newestStart_(newestStart), patience_(patience) {}

  std::vector<RunningApplication> runningApplications() override;
  void addObserver(WorkspaceObserver& observer, std::string_view keyPath,
                   pid_t processOfInterest) override;
  void removeObserver(WorkspaceObserver& observer, std::string_view keyPath) override;
  bool isOrphaned(pid_t launcher) override;
  void prepareToOpen(const std::string& path) override;
  void openApplication(const std::string& path, const OpenConfiguration& configuration,
                       OpenCompletion completion) override;
  void activateFileViewer(const std::vector<std::string>& paths) override;

 private:
  /// An observer and the process whose end it waits for.
  struct Watch {
    std::uint64_t number = 0;
    WorkspaceObserver* observer = nullptr;
    std::string keyPath;
    pid_t process = 0;
    bool hasEnded = false;
    UniqueFd pin;  // holds the process, whatever becomes of its number
    std::unique_ptr<DispatchSource> end;
  };

  UniqueFd pinned(pid_t process) const;
  static bool hasEnded(const Watch& watch);
  void processEnded(std::uint64_t number);
  void warmUp();
  std::optional<pid_t> instanceOf(const Bundle& bundle, const std::string& canonicalPath,
                                  const std::optional<LaunchRecord>& lastLaunch);
  /// The processes as of this turn of the main loop, which is when the system's own list changes
  /// on other systems too; one callback's several looks at it cost one scan.
  ProcessTable& processes();
  std::vector<pid_t> processesOfInterest() const;

  std::uint64_t newestStart_;
  std::chrono::nanoseconds patience_;
  std::uint64_t lastWatch_ = 0;
  std::list<Watch> watches_;
  ProcessSources sources_;
  std::unique_ptr<ProcessTable> processes_;
  std::string pathToOpen_;
  SystemLogStream log_;  // for the application there
};

}  // namespace velum
