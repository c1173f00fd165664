#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Workspace.h"

namespace velum {

/// Waits until the application instance that is quitting has gone, then opens the application
/// again, and ends the process: with status 0 when the application runs, with 1 when it could not
/// be opened in eleven attempts. Lives on the main thread.
class TerminationListener final : public WorkspaceObserver {
 public:
  using Exit = std::function<void(int status)>;

  /// Begins to watch at once. `executable` is the path of the application's bundle,
  /// `parentProcessId` the instance that is quitting. Relaunches from within when this process has
  /// already lost its parent. The last three arguments are the real ones but in tests; what
  /// `exitProcess` is called for ends the work even where it returns.
  TerminationListener(
      std::string executable, pid_t parentProcessId, Workspace& workspace = Workspace::shared(),
      DispatchQueue& mainQueue = DispatchQueue::main(),
      Exit exitProcess = [](int status) { std::exit(status); });
  TerminationListener(const TerminationListener&) = delete;
  TerminationListener& operator=(const TerminationListener&) = delete;
  ~TerminationListener() override;

  void observeValue(std::optional<std::string_view> keyPath) override;

 private:
  /// What the attempts of one relaunch share.
  struct Retries {
    int attemptsLeft = 10;
    std::chrono::duration<double> delay{0.1};
  };

  void startRelaunching();
  void relaunchWithRetries(const std::shared_ptr<Retries>& retries);
  void finishAttempt(const std::shared_ptr<Retries>& retries,
                     const std::optional<std::string>& error);
  bool isAppRunning() const;

  bool isRelaunching_ = false;  // never cleared
  std::string executable_;
  pid_t parentProcessId_;
  std::optional<std::string> appBundleIdentifier_;
  Workspace& workspace_;
  DispatchQueue& mainQueue_;
  Exit exitProcess_;
};

}  // namespace velum
