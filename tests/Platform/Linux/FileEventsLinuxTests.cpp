// What only inotify has: mounts, limits, and a queue that runs over.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <csignal>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/FileEvents.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/Monitored.h"
#include "tests/support/PrivateMounts.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;

using DirectoryMonitorLinux = DirectoryMonitorTest;

TEST_F(DirectoryMonitorLinux, TellsWhatIsMountedOverItAndUnmounted) {
  inChild([this] {
    if (!enterPrivateMounts()) GTEST_SKIP() << "mounts are not permitted";
    const Monitored watched(path);
    ASSERT_TRUE(watched.monitor->startMonitoring());
    EXPECT_TRUE(watched.isTold([&] { mountMemory(path, "size=64k"); }));
    ASSERT_TRUE(watched.monitor->startMonitoring());
    EXPECT_TRUE(watched.isTold([&] { touch(path); }));
    const UniqueFd user(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(watched.isTold([&] { ASSERT_EQ(::umount2(path.c_str(), MNT_DETACH), 0); }));
    ASSERT_TRUE(watched.monitor->startMonitoring());
    EXPECT_TRUE(watched.isTold([&] { touch(path); }));
  });
}

TEST_F(DirectoryMonitorLinux, CostsNoDescriptors) {
  const Monitored first(path);
  ASSERT_TRUE(first.monitor->startMonitoring());
  settle();
  const auto before = openDescriptors();
  std::vector<Monitored> monitors;
  for (int i = 0; i < 1000; ++i) {
    const std::string each = folder / std::to_string(i);
    fs::create_directory(each);
    monitors.emplace_back(each);
    ASSERT_TRUE(monitors.back().monitor->startMonitoring());
  }
  EXPECT_EQ(openDescriptors(), before);
  for (int i = 0; i < 1000; ++i) touch(folder / std::to_string(i));
  for (const auto& each : monitors) {
    EXPECT_TRUE(eventually([&] { return each.delegate->notices > 0; }));
  }
  monitors.clear();  // the ends of their watches are read together
  EXPECT_TRUE(first.isTold([&] { touch(path); }));
}

TEST_F(DirectoryMonitorLinux, RefusesOneMoreThanTheUserMayWatch) {
  inChild([this] {
    const UniqueFd limit([] {
      return enterPrivateMounts() && ::unshare(CLONE_NEWUSER) == 0
                 ? ::open("/proc/sys/user/max_inotify_watches", O_WRONLY | O_CLOEXEC)
                 : -1;
    }());
    // Each folder on the way takes one; the root, which can't be moved, none.
    const fs::path above(folder.path());
    const auto most = std::to_string(std::distance(above.begin(), above.end()) + 1);
    if (!limit || ::write(limit.get(), most.data(), most.size()) < 0) {
      GTEST_SKIP() << "the limit can't be set";
    }
    const CapturedLog log;
    const Monitored watched(path);
    ASSERT_TRUE(watched.monitor->startMonitoring());
    // Either its own one or the folder's above it is too much.
    fs::create_directories(folder / "1/2");
    const Monitored more(folder / "1/2");
    EXPECT_FALSE(more.monitor->startMonitoring());
    EXPECT_TRUE(log.has("Open " + (folder / "1/2") + " for file notifications"));
    EXPECT_TRUE(log.has("fs.inotify.max_user_watches"));
    EXPECT_TRUE(watched.isTold([&] { touch(path); }));
    watched.monitor->stopMonitoring();
    EXPECT_TRUE(more.monitor->startMonitoring()) << "what a refused start took is free again";
  });
}

TEST_F(DirectoryMonitorLinux, TellsEverybodyToLookAgainWhenEventsWereLost) {
  const std::string busy = folder / "busy";
  writeFile(busy, "x");
  ChildProcess watching([&] {
    constexpr FileEvent wanted = FileEvent::deleted | FileEvent::renamed;
    std::atomic<unsigned> seen{0};
    const auto quiet =
        FileEvents::shared().watch(path, wanted, DispatchQueue::serial("events"),
                                   [&](FileEvent event) { seen |= static_cast<unsigned>(event); });
    const Monitored quietPath(path);
    const Monitored other(busy);
    ASSERT_TRUE(quietPath.monitor->startMonitoring());
    ASSERT_TRUE(other.monitor->startMonitoring());
    writeFile(folder / "ready", "");
    EXPECT_TRUE(eventually([&] { return seen != 0 && quietPath.delegate->notices > 0; }));
    EXPECT_EQ(seen, static_cast<unsigned>(wanted));
  });
  ASSERT_TRUE(eventually([&] { return fs::exists(folder / "ready"); }));
  // More than the kernel's queue holds, while nobody empties it.
  ::kill(watching.pid(), SIGSTOP);
  retryInterrupted([&] { return ::waitpid(watching.pid(), nullptr, WUNTRACED); });
  const int capacity = std::stoi(readFile("/proc/sys/fs/inotify/max_queued_events"));
  const UniqueFd writer(::open(busy.c_str(), O_WRONLY | O_CLOEXEC));
  // Events of different kinds in turn, because equal ones are merged.
  for (int i = 0; i < capacity; ++i) {
    ASSERT_EQ(::pwrite(writer.get(), "y", 1, 0), 1);
    ASSERT_EQ(::fchmod(writer.get(), i % 2 == 0 ? 0600 : 0640), 0);
  }
  ::kill(watching.pid(), SIGCONT);
  EXPECT_EQ(watching.wait(), 0);
}

}  // namespace
}  // namespace velum::test
