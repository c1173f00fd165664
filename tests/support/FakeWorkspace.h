#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Platform/Workspace.h"

namespace velum::test {

/// A workspace whose list of applications and opening results the test sets.
class FakeWorkspace final : public Workspace {
 public:
  std::vector<RunningApplication> runningApplications() override { return running; }
  void addObserver(WorkspaceObserver& added, std::string_view keyPath, pid_t process) override {
    observer = &added;
    observed.emplace_back(keyPath, process);
  }
  void removeObserver(WorkspaceObserver& removed, std::string_view keyPath) override {
    if (observer == &removed && keyPath == runningApplicationsKeyPath) observer = nullptr;
  }
  bool isOrphaned(pid_t launcher) override { return launcher == orphanedBy; }
  void activateFileViewer(const std::vector<std::string>& paths) override { showing(paths); }
  void openApplication(const std::string& path, const OpenConfiguration& configuration,
                       OpenCompletion completion) override {
    EXPECT_FALSE(configuration.createsNewApplicationInstance);
    opened.push_back(path);
    completion(openError);
  }

  void run(pid_t process, const std::optional<std::string>& bundle = std::nullopt) {
    running.emplace_back(process, [bundle](pid_t) { return bundle; });
  }

  std::vector<RunningApplication> running;
  std::vector<std::pair<std::string, pid_t>> observed;
  std::vector<std::string> opened;
  std::optional<std::string> openError;
  WorkspaceObserver* observer = nullptr;
  std::optional<pid_t> orphanedBy;
  std::function<void(const std::vector<std::string>&)> showing;
};

}  // namespace velum::test
