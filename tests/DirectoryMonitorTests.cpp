#include <fcntl.h>
#include <unistd.h>

#include <latch>
#include <thread>

#include "Velum/Files/UniqueFd.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Monitored.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;

TEST_F(DirectoryMonitorTest, RefusesAMissingPathAndLogsIt) {
  const CapturedLog log;
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
  EXPECT_TRUE(watched.isTold([&] { writeFile(path + "/entry", "x"); }));
  EXPECT_TRUE(watched.isTold([&] { fs::rename(path + "/entry", path + "/renamed"); }));
  EXPECT_TRUE(watched.isTold([&] { fs::remove(path + "/renamed"); }));
  writeFile(path + "/file", "1");
  settle();
  const int before = watched.delegate->notices;
  writeFile(path + "/file", "2");  // which is nothing to the folder
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
  writeFile(path + ".new", "x");
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
  inChild([&] {  // as one whom permissions bind
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
               user.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
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

TEST_F(DirectoryMonitorTest, IsNotHeldUpByAnothersDelegate) {
  std::atomic<bool> isBusy{false};
  std::latch release(1);
  fs::create_directory(folder / "slow");
  const Monitored slow(folder / "slow", [&](IDirectoryMonitor&) {
    isBusy = true;
    release.wait();
  });
  const Monitored watched(path);
  ASSERT_TRUE(slow.monitor->startMonitoring());
  ASSERT_TRUE(watched.monitor->startMonitoring());
  touch(folder / "slow");
  ASSERT_TRUE(eventually([&] { return isBusy.load(); }));
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(watched.isTold([&] { touch(path); }));
  // Its own changes wait for it, and are told at once.
  for (int i = 0; i < 10; ++i) touch(folder / "slow");
  settle();
  EXPECT_EQ(slow.delegate->notices, 0);
  release.count_down();
  EXPECT_TRUE(eventually([&] { return slow.delegate->notices == 2; }));
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
  std::latch isIn(1);
  std::latch isGone(1);
  watched.delegate->action = [&](IDirectoryMonitor& monitor) {
    isIn.count_down();
    isGone.wait();
    monitor.stopMonitoring();
  };
  ASSERT_TRUE(watched.monitor->startMonitoring());
  const std::weak_ptr<DirectoryMonitor> weak = watched.monitor;
  EXPECT_TRUE(watched.isTold([&] {
    touch(path);
    isIn.wait();
    watched.monitor.reset();
    isGone.count_down();
  }));
  EXPECT_TRUE(eventually([&] { return weak.expired(); }));
}

TEST_F(DirectoryMonitorTest, MayBeUsedByManyThreadsAtOnce) {
  const Monitored watched(path);
  {
    const std::jthread changes([&](const std::stop_token& end) {
      while (!end.stop_requested()) touch(path);
    });
    std::vector<std::jthread> users;
    for (int i = 0; i < 3; ++i) {
      users.emplace_back([&, i] {
        for (int round = 0; round < 300; ++round) {
          EXPECT_TRUE(watched.monitor->startMonitoring());
          if (i == 0) watched.monitor->setDelegate(watched.delegate);
          watched.monitor->stopMonitoring();
        }
      });
    }
  }
  ASSERT_TRUE(watched.monitor->startMonitoring());
  EXPECT_TRUE(watched.isTold([&] { touch(path); }));
}

}  // namespace
}  // namespace velum::test
