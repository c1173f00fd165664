#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Velum/DirectoryMonitor.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum::test {

/// Counts notices, and does what a test wants done in them.
struct Delegate final : DirectoryMonitorDelegate {
  void directoryMonitorDidObserveChange(IDirectoryMonitor& monitor) override {
    if (action) action(monitor);
    ++notices;
  }
  std::function<void(IDirectoryMonitor&)> action;
  std::atomic<int> notices{0};
};

struct Monitored {
  explicit Monitored(const std::string& path, std::function<void(IDirectoryMonitor&)> action = {})
      : monitor(DirectoryMonitor::create(path)) {
    delegate->action = std::move(action);
    monitor->setDelegate(delegate);
  }
  // True when something is told beyond what was when `change` began.
  template <class Change>
  bool isTold(Change change) const {
    const int before = delegate->notices;
    change();
    return eventually([&] { return delegate->notices > before; });
  }

  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  std::shared_ptr<DirectoryMonitor> monitor;
};

inline void touch(const std::string& path) {
  ASSERT_EQ(::chmod(path.c_str(), 0700), 0) << path;
}

class DirectoryMonitorTest : public ::testing::Test {
 protected:
  DirectoryMonitorTest() { std::filesystem::create_directory(path); }

  // What happened so far has been told when a later change has been.
  void settle() const {
    const std::string last = folder / "settle";
    std::filesystem::create_directory(last);
    const Monitored other(last);
    ASSERT_TRUE(other.monitor->startMonitoring());
    EXPECT_TRUE(other.isTold([&] { touch(last); }));
    std::filesystem::remove(last);
  }

  TemporaryFolder folder;
  std::string path = folder / "watched";
};

}  // namespace velum::test
