#include "Velum/DirectoryMonitor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

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
    return test::eventually([&] { return delegate->notices > before; });
  }

  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
  std::shared_ptr<DirectoryMonitor> monitor;
};

void touch(const std::string& path) {
  ASSERT_EQ(::chmod(path.c_str(), 0700), 0) << path;
}

class DirectoryMonitorTest : public ::testing::Test {
 protected:
  DirectoryMonitorTest() { fs::create_directory(path); }

  // What happened so far has been told when a later change has been.
  void settle() const {
    const std::string last = folder / "settle";
    fs::create_directory(last);
    const Monitored other(last);
    ASSERT_TRUE(other.monitor->startMonitoring());
    EXPECT_TRUE(other.isTold([&] { touch(last); }));
    fs::remove(last);
  }

  test::TemporaryFolder folder;
  std::string path = folder / "watched";
};

TEST_F(DirectoryMonitorTest, RefusesAMissingPathAndLogsIt) {
  const test::CapturedLog log;
  const Monitored missing(folder / "missing");
  EXPECT_FALSE(missing.monitor->startMonitoring());
  EXPECT_EQ(log.count("Open " + (folder / "missing") +
                      " for file notifications: No such file or directory"),
            1U);
  EXPECT_TRUE(log.has("startMonitoring()"));
  fs::create_directory(folder / "missing");
  EXPECT_TRUE(missing.monitor->startMonitoring());
}

TEST_F(DirectoryMonitorTest, TellsChangesBetweenStartAndStop) {
  Monitored watched(path);
  touch(path);
  ASSERT_TRUE(watched.monitor->startMonitoring());
  ASSERT_TRUE(watched.monitor->startMonitoring());  // keeps its one source
  settle();
  EXPECT_EQ(watched.delegate->notices, 0);
  EXPECT_TRUE(watched.isTold([&] { touch(path); }));
  settle();
  EXPECT_EQ(watched.delegate->notices, 1);
  EXPECT_TRUE(watched.isTold([&] { test::writeFile(path + "/entry", "x"); }));
  EXPECT_TRUE(watched.isTold([&] { fs::rename(path + "/entry", path + "/renamed"); }));
  EXPECT_TRUE(watched.isTold([&] { fs::remove(path + "/renamed"); }));
  test::writeFile(path + "/file", "1");
  settle();
  const int before = watched.delegate->notices;
  test::writeFile(path + "/file", "2");  // which is nothing to the folder
  touch(path + "/file");
  settle();
  EXPECT_EQ(watched.delegate->notices, before);
  watched.monitor->stopMonitoring();
  // A call that began before may go on, to the delegate it began with.
  watched.delegate = std::make_shared<Delegate>();
  watched.monitor->setDelegate(watched.delegate);
  touch(path);
  settle();
  EXPECT_EQ(watched.delegate->notices, 0);
  ASSERT_TRUE(watched.monitor->startMonitoring());
  EXPECT_TRUE(watched.isTold([&] { touch(path); }));
}

// How a path may come to lead elsewhere, with the path back.
struct Loss {
  const char* name;
  void (*lose)(const std::string& path);
  void (*make)(const std::string& path);
  void (*prepare)(const std::string& path) = [](const std::string&) {};
};
void PrintTo(const Loss& loss, std::ostream* out) {
  *out << loss.name;
}
void makeFolder(const std::string& path) {
  fs::create_directories(path);
}

constexpr uid_t nobody = 65534;

std::string upFrom(fs::path path, int folders) {
  while (folders-- > 0) path = path.parent_path();
  return path.string();
}

// While somebody reads the one before.
void replaceFile(const std::string& path) {
  static UniqueFd reader;
  reader.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  test::writeFile(path + ".new", "x");
  fs::rename(path + ".new", path);
}

class DirectoryMonitorLoss : public DirectoryMonitorTest,
                             public ::testing::WithParamInterface<Loss> {};

TEST_P(DirectoryMonitorLoss, IsToldAndWatchedAgainByTheNextStart) {
  fs::create_directories(folder / "real/top/above/watched");
  fs::create_directory_symlink("real", folder / "link");
  path = folder / "link/top/above/watched";
  for (const auto& each : fs::recursive_directory_iterator(folder.path())) {
    EXPECT_TRUE(::geteuid() != 0 || ::lchown(each.path().c_str(), nobody, nobody) == 0);
  }
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  test::inChild([&] {  // as one whom permissions bind
    ASSERT_TRUE(::geteuid() != 0 || ::setuid(nobody) == 0);
    GetParam().prepare(path);
    const Monitored watched(path);
    for (const bool stops : {false, true}) {
      ASSERT_TRUE(watched.monitor->startMonitoring());
      fs::rename(path, path + ".moved");
      fs::rename(path + ".moved", path);
      settle();
      EXPECT_TRUE(watched.isTold([&] { GetParam().lose(path); }));
      settle();
      EXPECT_TRUE(watched.isTold([&] { GetParam().make(path); })) << "made again";
      if (stops) watched.monitor->stopMonitoring();
      ASSERT_TRUE(watched.monitor->startMonitoring());
      settle();
      EXPECT_TRUE(watched.isTold([&] { touch(path); })) << "watched again";
      watched.monitor->stopMonitoring();
    }
  });
}

INSTANTIATE_TEST_SUITE_P(
    , DirectoryMonitorLoss,
    ::testing::Values(
        Loss{"Deleted", [](const std::string& path) { fs::remove(path); }, makeFolder},
        Loss{"DeletedWhileInUse",
             [](const std::string& path) {
               // No event of the folder itself comes before its last user has left it.
               static UniqueFd user;
               user.reset(::open(path.c_str(), O_PATH | O_CLOEXEC));
               fs::remove(path);
             },
             makeFolder},
        Loss{"RenamedAndBack", [](const std::string& path) { fs::rename(path, path + ".away"); },
             [](const std::string& path) { fs::rename(path + ".away", path); }},
        Loss{"DeletedWithTheFolderAbove",
             [](const std::string& path) { fs::remove_all(fs::path(path).parent_path()); },
             makeFolder},
        Loss{"RenamedFurtherUpBehindALink",
             [](const std::string& path) {
               fs::rename(upFrom(path, 4) + "/real", upFrom(path, 3) + ".old");
             },
             [](const std::string& path) {
               fs::rename(upFrom(path, 3) + ".old", upFrom(path, 4) + "/real");
             }},
        Loss{"ClosedAbove", [](const std::string& path) { ::chmod(upFrom(path, 1).c_str(), 0); },
             [](const std::string& path) { ::chmod(upFrom(path, 1).c_str(), 0700); }},
        Loss{"ClosedFurtherUp",
             [](const std::string& path) { ::chmod(upFrom(path, 2).c_str(), 0); },
             [](const std::string& path) { ::chmod(upFrom(path, 2).c_str(), 0700); }},
        Loss{"AnotherLinkOnTheWay",
             [](const std::string& path) {
               const std::string link = upFrom(path, 3);
               const std::string next = fs::read_symlink(link).string() + "+";
               fs::create_directory(upFrom(link, 1) + '/' + next);
               fs::create_directory_symlink(next, link + ".new");
               fs::rename(link + ".new", link);
             },
             makeFolder},
        Loss{"AFileReplacedAsEditorsDo", replaceFile, replaceFile,
             [](const std::string& path) {
               fs::remove(path);
               replaceFile(path);
             }},
        Loss{"WhereItsLinkLeads", [](const std::string& path) { fs::remove(path + ".target"); },
             [](const std::string& path) { fs::create_directory(path + ".target"); },
             [](const std::string& path) {
               fs::rename(path, path + ".target");
               fs::create_directory_symlink("watched.target", path);
             }}),
    [](const auto& loss) { return std::string(loss.param.name); });

TEST_F(DirectoryMonitorTest, TellsWhatIsMountedOverItAndUnmounted) {
  test::inChild([this] {
    if (!test::enterPrivateMounts()) GTEST_SKIP() << "mounts are not permitted";
    const Monitored watched(path);
    ASSERT_TRUE(watched.monitor->startMonitoring());
    EXPECT_TRUE(watched.isTold([&] { test::mountMemory(path, "size=64k"); }));
    ASSERT_TRUE(watched.monitor->startMonitoring());
    EXPECT_TRUE(watched.isTold([&] { touch(path); }));
    const UniqueFd user(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(watched.isTold([&] { ASSERT_EQ(::umount2(path.c_str(), MNT_DETACH), 0); }));
    ASSERT_TRUE(watched.monitor->startMonitoring());
    EXPECT_TRUE(watched.isTold([&] { touch(path); }));
  });
}

TEST_F(DirectoryMonitorTest, IsNotHeldUpByAnothersDelegate) {
  std::promise<void> release;
  const auto released = release.get_future().share();
  fs::create_directory(folder / "slow");
  std::atomic<bool> isBusy{false};
  const Monitored slow(folder / "slow", [&](IDirectoryMonitor&) {
    isBusy = true;
    released.wait();
  });
  const Monitored watched(path);
  ASSERT_TRUE(slow.monitor->startMonitoring());
  ASSERT_TRUE(watched.monitor->startMonitoring());
  touch(folder / "slow");
  ASSERT_TRUE(test::eventually([&] { return isBusy.load(); }));
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(watched.isTold([&] { touch(path); }));
  // Its own changes wait for it, and are told at once.
  for (int i = 0; i < 10; ++i) touch(folder / "slow");
  settle();
  EXPECT_EQ(slow.delegate->notices, 0);
  release.set_value();
  EXPECT_TRUE(test::eventually([&] { return slow.delegate->notices == 2; }));
  settle();
  EXPECT_EQ(slow.delegate->notices, 2);
  slow.monitor->stopMonitoring();
}

TEST_F(DirectoryMonitorTest, MayBeStoppedStartedAndGivenUpByItsDelegate) {
  Monitored watched(path, [](IDirectoryMonitor& monitor) {
    monitor.stopMonitoring();
    EXPECT_TRUE(monitor.startMonitoring());
  });
  ASSERT_TRUE(watched.monitor->startMonitoring());
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(watched.isTold([&] { touch(path); }));
  watched.monitor->stopMonitoring();
  settle();
  // The last reference goes while the delegate runs, here and on another thread.
  std::promise<void> isIn;
  std::promise<void> isGone;
  watched.delegate->action = [&](IDirectoryMonitor& monitor) {
    isIn.set_value();
    isGone.get_future().wait();
    monitor.stopMonitoring();
  };
  ASSERT_TRUE(watched.monitor->startMonitoring());
  const std::weak_ptr<DirectoryMonitor> weak = watched.monitor;
  EXPECT_TRUE(watched.isTold([&] {
    touch(path);
    isIn.get_future().wait();
    watched.monitor.reset();
    isGone.set_value();
  }));
  EXPECT_TRUE(test::eventually([&] { return weak.expired(); }));
}

TEST_F(DirectoryMonitorTest, CostsNoDescriptors) {
  const Monitored first(path);
  ASSERT_TRUE(first.monitor->startMonitoring());
  settle();
  const auto before = test::openDescriptors();
  std::vector<Monitored> monitors;
  for (int i = 0; i < 1000; ++i) {
    const std::string each = folder / std::to_string(i);
    if (i % 2 == 0) fs::create_directory(each);
    if (i % 2 == 1) test::writeFile(each, "");
    monitors.emplace_back(each);
    ASSERT_TRUE(monitors.back().monitor->startMonitoring());
  }
  EXPECT_EQ(test::openDescriptors(), before);
  for (int i = 0; i < 1000; ++i) touch(folder / std::to_string(i));
  for (const auto& each : monitors) {
    EXPECT_TRUE(test::eventually([&] { return each.delegate->notices > 0; }));
  }
  monitors.clear();  // the ends of their watches are read together
  EXPECT_TRUE(first.isTold([&] { touch(path); }));
}

TEST_F(DirectoryMonitorTest, RefusesOneMoreThanTheUserMayWatch) {
  test::inChild([this] {
    const UniqueFd limit([] {
      return test::enterPrivateMounts() && ::unshare(CLONE_NEWUSER) == 0
                 ? ::open("/proc/sys/user/max_inotify_watches", O_WRONLY | O_CLOEXEC)
                 : -1;
    }());
    // Each folder on the way takes one; the root, which can't be moved, none.
    const fs::path above(folder.path());
    const auto most = std::to_string(std::distance(above.begin(), above.end()) + 1);
    if (!limit || ::write(limit.get(), most.data(), most.size()) < 0) {
      GTEST_SKIP() << "the limit can't be set";
    }
    const test::CapturedLog log;
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

TEST_F(DirectoryMonitorTest, MayBeUsedByManyThreadsAtOnce) {
  const Monitored watched(path);
  std::atomic<bool> isOver{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    while (!isOver) ::chmod(path.c_str(), 0700);
  });
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 300; ++round) {
        EXPECT_TRUE(watched.monitor->startMonitoring());
        if (i == 0) watched.monitor->setDelegate(watched.delegate);
        watched.monitor->stopMonitoring();
      }
    });
  }
  for (auto thread = threads.begin() + 1; thread != threads.end(); ++thread) thread->join();
  isOver = true;
  threads.front().join();
  ASSERT_TRUE(watched.monitor->startMonitoring());
  EXPECT_TRUE(watched.isTold([&] { touch(path); }));
}

}  // namespace
}  // namespace velum
