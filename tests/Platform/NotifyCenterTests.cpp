#include "Velum/Platform/NotifyCenter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/NotifyCenterLinux.h"
#include "Velum/SystemError.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RecordingLogHandler.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using Observer = std::unique_ptr<NotifyCenter::Observer>;
using Sharing = NotifyFolder::Sharing;

class NotifyCenterTest : public ::testing::Test {
 protected:
  static std::shared_ptr<NotifyCenterLinux> centerOf(const std::string& path) {
    return NotifyCenterLinux::make(path, Sharing::user);
  }
  Observer counting(const std::string& name, std::atomic<int>& count) const {
    return center->addObserver(name, [&count] { ++count; });
  }
  static bool reaches(const std::atomic<int>& count, int wanted) {
    return test::eventually([&] { return count >= wanted; });
  }
  // What was posted before this has been told when it returns: names are told in their order.
  void settle() const {
    std::binary_semaphore told{0};
    const auto last = center->addObserver("settle", [&] { told.release(); });
    center->post("settle");
    EXPECT_TRUE(told.try_acquire_for(test::deadline));
  }
  void makeGroups() const {
    const NotifyFolder notify(path, Sharing::user);
    notify.make();
    for (std::size_t group = 0; group < NotifyFolder::groups; ++group) notify.makeGroup(group);
  }
  std::string fileOf(std::string_view name) const {
    return path + '/' + NotifyFolder::fileName(name);
  }

  test::TemporaryFolder folder;
  std::string path = folder / "notify";
  std::shared_ptr<NotifyCenterLinux> center = centerOf(path);
};

TEST_F(NotifyCenterTest, TellsEachPostToTheObserversOfItsNameOnly) {
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  std::atomic<int> other{0};
  const auto one = counting("name", first);
  auto two = counting("name", second);
  const auto three = counting("name2", other);
  for (int round = 1; round <= 3; ++round) {
    center->post("name");
    EXPECT_TRUE(reaches(first, round));
    settle();
    EXPECT_EQ(first, round);
    EXPECT_EQ(second, round);
  }
  two.reset();
  center->post("name");
  EXPECT_TRUE(reaches(first, 4));
  settle();
  EXPECT_EQ(second, 3);
  EXPECT_EQ(other, 0);
}

TEST_F(NotifyCenterTest, TellsNothingThatWasPostedBeforeTheObserverWasAdded) {
  std::atomic<int> early{0};
  std::atomic<int> late{0};
  const auto first = counting("name", early);
  for (int i = 0; i < 200; ++i) {
    center->post("name");  // its event is most likely still unread
    const int before = late;
    const auto second = counting("name", late);
    settle();
    ASSERT_EQ(late, before);
  }
  center->post("name");
  EXPECT_TRUE(reaches(early, 1));
  const auto last = counting("name", late);
  center->post("name");
  EXPECT_TRUE(reaches(late, 1));
}

TEST_F(NotifyCenterTest, TakesNamesOfAnyLengthAndAnyBytes) {
  const std::vector<std::string> names{"",
                                       ".",
                                       "..",
                                       ".hidden",
                                       "=equals",
                                       "../escape",
                                       "/etc/passwd",
                                       std::string("a\0b", 3),
                                       std::string("a\0c", 3),
                                       "\xFF\xFE\n%s",
                                       std::string(200, 'x'),
                                       std::string(201, 'x'),
                                       std::string(1'000'000, 'y'),
                                       std::string(1'000'000, 'y') + 'z'};
  std::vector<std::atomic<int>> counts(names.size());
  std::vector<Observer> observers;
  for (std::size_t i = 0; i < names.size(); ++i) {
    observers.push_back(counting(names[i], counts[i]));
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    center->post(names[i]);
    EXPECT_TRUE(reaches(counts[i], 1)) << i;
  }
  settle();
  for (std::size_t i = 0; i < names.size(); ++i) EXPECT_EQ(counts[i], 1) << i;
  EXPECT_THAT(test::readFile(fileOf(names.back())), ::testing::EndsWith(names.back()));
  for (const auto& entry : fs::recursive_directory_iterator(folder.path())) {
    const auto group = entry.is_directory() ? entry.path() : entry.path().parent_path();
    EXPECT_TRUE(entry.path() == path || group.parent_path() == path) << entry.path();
  }
}

TEST_F(NotifyCenterTest, NeitherMissesThePostsOfOtherProcessesNorInventsAny) {
  constexpr int posters = 4;
  constexpr int posts = 2500;
  std::atomic<int> heard{0};
  std::atomic<int> quiet{0};
  const auto observer = counting("name", heard);
  const auto other = counting("quiet", quiet);
  std::vector<test::ChildProcess> children;
  for (int i = 0; i < posters; ++i) {
    children.emplace_back([this] {
      for (int n = 0; n < posts; ++n) center->post("name");
    });
  }
  for (auto& child : children) EXPECT_EQ(child.wait(), 0);
  settle();
  EXPECT_GE(heard, 1);
  EXPECT_LE(heard, posters * posts);
  EXPECT_EQ(quiet, 0);
  const int before = heard;
  center->post("name");  // no generation was used twice: this one is new
  EXPECT_TRUE(reaches(heard, before + 1));
  settle();
  EXPECT_EQ(heard, before + 1);
}

TEST_F(NotifyCenterTest, ComparesGenerationsWhenTheKernelLostEvents) {
  std::atomic<int> lost{0};
  std::atomic<int> quiet{0};
  std::atomic<int> seen{0};
  std::binary_semaphore begun{0};
  std::binary_semaphore goOn{0};
  std::vector<Observer> observers;
  observers.push_back(counting("lost", lost));
  observers.push_back(counting("quiet", quiet));
  observers.push_back(counting("seen", seen));
  center->post("quiet");
  center->post("seen");
  EXPECT_TRUE(reaches(quiet, 1));
  EXPECT_TRUE(reaches(seen, 1));
  const auto blocking = center->addObserver("block", [&] {
    begun.release();
    goOn.acquire();
  });
  center->post("block");
  ASSERT_TRUE(begun.try_acquire_for(test::deadline));
  // More than the queue holds, of two files in turn, because equal events are merged.
  std::ifstream limit("/proc/sys/fs/inotify/max_queued_events");
  int events = 16384;
  limit >> events;
  if (events > 100'000) GTEST_SKIP() << "the queue of this machine holds too much";
  for (int i = 0; i < events / 2 + 10; ++i) {
    center->post("a");
    center->post("b");
  }
  center->post("lost");
  goOn.release();
  EXPECT_TRUE(reaches(lost, 1));
  settle();
  EXPECT_EQ(lost, 1);
  EXPECT_EQ(quiet, 1);
  EXPECT_EQ(seen, 1);
}

TEST_F(NotifyCenterTest, GoesOnWhenTheFolderIsRemovedOrReplaced) {
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  const auto poster = centerOf(path);  // as in another process
  int wanted = 0;
  const auto expectNext = [&] {
    poster->post("name");
    EXPECT_TRUE(reaches(count, ++wanted));
    settle();
    EXPECT_EQ(count, wanted);
  };
  // The observer makes it again at once, perhaps before all is gone.
  const auto removeFolder = [&](const std::string& replacement = "") {
    EXPECT_TRUE(test::eventually([&] {
      std::error_code error;
      fs::remove_all(path, error);
      if (!error && !replacement.empty()) fs::rename(replacement, path, error);
      return !error;
    }));
  };
  expectNext();
  removeFolder();
  expectNext();
  fs::rename(path, folder / "elsewhere");
  expectNext();
  fs::create_directory(folder / "other");
  fs::permissions(folder / "other", fs::perms::owner_all);
  removeFolder(folder / "other");
  expectNext();
  removeFolder();  // of which the first poster has a file open
  centerOf(path)->post("name");
  EXPECT_TRUE(reaches(count, ++wanted));
}

TEST_F(NotifyCenterTest, FindsAFolderAgainThatItCanNotMakeItself) {
  const auto handler = std::make_shared<test::RecordingLogHandler>();
  Logger::shared().setHandlers({handler});
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  test::writeFile(folder / "file", "in the way");
  const std::string file = folder / "file";
  ASSERT_EQ(::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE), 0);
  EXPECT_TRUE(test::eventually([&] { return !handler->records().empty(); }));
  EXPECT_THROW(center->post("name"), SystemError);
  EXPECT_THROW(counting("name2", count), SystemError);
  fs::remove(path);
  const auto poster = centerOf(path);  // as in another process
  poster->post("name");
  const auto another = counting("name2", count);  // watches the folder again
  EXPECT_TRUE(reaches(count, 1));
  EXPECT_THAT(handler->texts(), ::testing::SizeIs(1));
  Logger::shared().setHandlers({});
}

TEST_F(NotifyCenterTest, TriesQuietlyToWatchAGroupThatItCanNotMake) {
  const auto handler = std::make_shared<test::RecordingLogHandler>();
  Logger::shared().setHandlers({handler});
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  const fs::path group = fs::path(fileOf("name")).parent_path();
  test::writeFile(folder / "file", "in the way");
  const std::string file = folder / "file";
  ASSERT_EQ(::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, group.c_str(), RENAME_EXCHANGE), 0);
  EXPECT_TRUE(test::eventually([&] { return !handler->records().empty(); }));
  const std::clock_t before = std::clock();
  fs::remove(group);
  centerOf(path)->post("name");
  EXPECT_TRUE(reaches(count, 1));
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 2) << "it did not pause between its tries";
  EXPECT_THAT(handler->texts(), ::testing::SizeIs(1));
  Logger::shared().setHandlers({});
}

TEST_F(NotifyCenterTest, RefusesWhatSomebodyPutInTheFilesPlace) {
  const auto handler = std::make_shared<test::RecordingLogHandler>();
  Logger::shared().setHandlers({handler});
  makeGroups();
  const std::string victim = folder / "victim";
  test::writeFile(victim, "precious");
  fs::create_symlink(victim, fileOf("link"));
  fs::create_symlink(folder / "nowhere", fileOf("dangling"));
  fs::create_hard_link(victim, fileOf("hard"));
  fs::create_directory(fileOf("folder"));
  ASSERT_EQ(::mkfifo(fileOf("fifo").c_str(), 0600), 0);
  test::writeFile(fileOf("big"), std::string(100'000, 'x'));
  std::atomic<int> count{0};
  std::vector<Observer> observers;
  for (const char* name : {"link", "dangling", "hard", "folder", "fifo", "big"}) {
    observers.push_back(counting(name, count));
    EXPECT_THROW(center->post(name), SystemError) << name;
  }
  for (int i = 0; i < 3; ++i) test::writeFile(fileOf("hard"), "precious");  // events of its own
  settle();
  EXPECT_EQ(count, 0);
  EXPECT_EQ(test::readFile(victim), "precious");
  EXPECT_FALSE(fs::exists(folder / "nowhere"));
  EXPECT_THAT(handler->texts(), ::testing::ElementsAre(::testing::HasSubstr("Refused")));
  if (::geteuid() == 0) {
    center->post("foreign");
    ASSERT_EQ(::chown(fileOf("foreign").c_str(), 1, 1), 0);
    EXPECT_THROW(center->post("foreign"), SystemError);
  }
  Logger::shared().setHandlers({});
}

TEST_F(NotifyCenterTest, RefusesAFolderThatOthersMayChange) {
  fs::create_directory(path);
  fs::permissions(path, fs::perms::all);
  std::atomic<int> count{0};
  EXPECT_THROW(counting("name", count), SystemError);
  fs::permissions(path, fs::perms::owner_all);
  fs::rename(path, folder / "real");
  fs::create_directory_symlink(folder / "real", path);
  EXPECT_THROW(counting("name", count), SystemError);
}

TEST_F(NotifyCenterTest, LetsAllUsersPostInTheScopeOfTheSystem) {
  const mode_t before = ::umask(0077);
  const auto shared = NotifyCenterLinux::make(path, Sharing::all);
  std::atomic<int> count{0};
  const auto observer = shared->addObserver("name", [&] { ++count; });
  shared->post("name");
  ::umask(before);
  EXPECT_TRUE(reaches(count, 1));
  struct stat status {};
  for (const fs::path& made : {fs::path(path), fs::path(fileOf("name")).parent_path()}) {
    ASSERT_EQ(::stat(made.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 01777U);
  }
  ASSERT_EQ(::stat(fileOf("name").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0666U);
  if (::geteuid() != 0) return;
  fs::permissions(folder.path(), fs::perms::others_exec, fs::perm_options::add);
  test::inChild([&] {
    ASSERT_EQ(::setgid(65534), 0);
    ASSERT_EQ(::setuid(65534), 0);
    shared->post("name");
    shared->post("new");
  });
  EXPECT_TRUE(reaches(count, 2));
  shared->post("new");
}

TEST_F(NotifyCenterTest, ObserversMayBeRemovedAndAddedInCallbacks) {
  std::atomic<int> own{0};
  std::atomic<int> added{0};
  Observer self;
  Observer late;
  std::binary_semaphore ready{0};
  self = center->addObserver("name", [&] {
    ready.acquire();
    ++own;
    late = counting("name", added);
    self.reset();
  });
  ready.release();
  center->post("name");
  EXPECT_TRUE(reaches(own, 1));
  settle();
  center->post("name");
  EXPECT_TRUE(reaches(added, 1));
  settle();
  EXPECT_EQ(own, 1);
  EXPECT_EQ(added, 1);
}

TEST_F(NotifyCenterTest, CallsNoCallbackAfterItsObserverWasRemoved) {
  std::atomic<bool> isDone{false};
  std::thread poster([&] {
    while (!isDone) center->post("name");
  });
  for (int i = 0; i < 300; ++i) {
    const auto alive = std::make_shared<std::atomic<bool>>(true);
    std::binary_semaphore called{0};
    auto once = std::make_shared<std::atomic<bool>>(false);
    auto observer = center->addObserver("name", [alive, once, &called] {
      EXPECT_TRUE(*alive);
      if (!once->exchange(true)) called.release();
    });
    ASSERT_TRUE(called.try_acquire_for(test::deadline));
    observer.reset();
    settle();  // a call that had begun is over
    *alive = false;
  }
  isDone = true;
  poster.join();
}

TEST_F(NotifyCenterTest, AHandlerThatTakesLongKeepsNobodyWaiting) {
  std::binary_semaphore begun{0};
  std::binary_semaphore goOn{0};
  std::atomic<bool> mayTakeLong{false};
  std::atomic<int> calls{0};
  std::atomic<int> ended{0};
  const auto handler = center->addHandler("long", [&](bool isAllowed) {
    mayTakeLong = isAllowed;
    ++calls;
    if (!isAllowed) return;
    begun.release();
    goOn.acquire();
    ++ended;
  });
  center->post("long");
  ASSERT_TRUE(begun.try_acquire_for(test::deadline));
  // A thread that waits reads itself, and gets the handler's calls as well.
  std::atomic<int> answers{0};
  auto awaited = center->addAwaited("answer", [&] { ++answers; });
  center->post("answer");
  EXPECT_TRUE(center->wait([&] { return answers == 1; }, test::deadline));
  EXPECT_FALSE(center->wait([&] { return answers == 2; }, std::chrono::milliseconds(1)));
  center->post("long");
  center->post("answer");
  EXPECT_TRUE(center->wait([&] { return calls == 2 && answers == 2; }, test::deadline));
  EXPECT_FALSE(mayTakeLong);
  // An observer that waits for nobody is given a thread.
  std::atomic<int> count{0};
  auto observer = counting("name", count);
  center->post("name");
  EXPECT_TRUE(reaches(count, 1));
  goOn.release();
  // As long as it is there, no handler may take long.
  center->post("long");
  EXPECT_TRUE(reaches(calls, 3));
  settle();
  EXPECT_FALSE(mayTakeLong);
  observer.reset();
  center->post("long");
  EXPECT_TRUE(begun.try_acquire_for(test::deadline));
  goOn.release();
  EXPECT_TRUE(reaches(ended, 2));
  EXPECT_TRUE(mayTakeLong);
}

TEST_F(NotifyCenterTest, EveryThreadThatWaitsIsWokenByWhoeverReads) {
  constexpr int waiters = 4;
  std::atomic<int> answers{0};
  const auto awaited = center->addAwaited("answer", [&] { ++answers; });
  for (int round = 1; round <= 50; ++round) {
    std::vector<std::thread> threads;
    std::atomic<int> woken{0};
    for (int i = 0; i < waiters; ++i) {
      threads.emplace_back([&, round] {
        if (center->wait([&, round] { return answers >= round; }, test::deadline)) ++woken;
      });
    }
    if (round == 25) fs::rename(path, folder / "elsewhere");
    center->post("answer");
    for (auto& thread : threads) thread.join();
    ASSERT_EQ(woken, waiters);
  }
}

TEST_F(NotifyCenterTest, ObservesAThousandNamesWithOneDescriptor) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  std::atomic<int> count{0};
  std::vector<Observer> first;
  for (int i = 0; i < 20; ++i) {
    const std::string name = "first" + std::to_string(i);
    first.push_back(counting(name, count));
    center->post(name);  // keeps a few files open
  }
  EXPECT_TRUE(reaches(count, 20));
  const auto before = descriptors();
  {
    std::vector<Observer> observers;
    for (int i = 0; i < 1000; ++i) observers.push_back(counting(std::to_string(i), count));
    for (int i = 0; i < 1000; ++i) center->post(std::to_string(i));
    EXPECT_TRUE(reaches(count, 1020));
    EXPECT_EQ(descriptors(), before);
  }
  EXPECT_EQ(descriptors(), before);
  auto another = centerOf(path);
  const auto kept = another->addObserver("name", [] {});
  another.reset();  // its descriptor is closed by its thread
  EXPECT_TRUE(test::eventually([&] { return descriptors() == before; }));
}

TEST_F(NotifyCenterTest, AForkedChildBeginsAnewAndLeavesTheParentItsEvents) {
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  center->post("name");
  EXPECT_TRUE(reaches(count, 1));
  test::inChild([&] {
    std::atomic<int> own{0};
    const auto mine = counting("name", own);
    center->post("name");
    EXPECT_TRUE(reaches(own, 1));
    settle();
    EXPECT_EQ(count, 1);
  });
  EXPECT_TRUE(reaches(count, 2));
}

TEST_F(NotifyCenterTest, AForkedChildMayDropWhatItInheritedBeforeItObserves) {
  std::atomic<int> count{0};
  auto observer = counting("name", count);
  test::inChild([&] {
    observer.reset();
    std::atomic<int> own{0};
    const auto mine = counting("name", own);
    for (int i = 1; i <= 2; ++i) {
      center->post("name");
      EXPECT_TRUE(reaches(own, i));
    }
    EXPECT_EQ(count, 0);
  });
}

TEST_F(NotifyCenterTest, NobodyHasToObserveAnythingToWait) {
  EXPECT_FALSE(center->wait([] { return false; }, std::chrono::milliseconds(1)));
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  test::inChild([&] {
    EXPECT_FALSE(center->wait([] { return false; }, std::chrono::milliseconds(1)));
    center->post("name");
    EXPECT_FALSE(center->wait([] { return false; }, std::chrono::milliseconds(1)));
    EXPECT_EQ(count, 0);
  });
}

TEST_F(NotifyCenterTest, ForgetsFilesThatWereKeptTwice) {
  RecentNotifyFiles recent;
  const auto file = std::make_shared<const NotifyFile>();
  recent.keep("name", file);
  recent.keep("name", std::make_shared<const NotifyFile>());
  recent.keep("other", file);
  recent.forget("name");
  EXPECT_EQ(recent.find("name"), nullptr);
  EXPECT_EQ(recent.find("other"), file);
}

TEST_F(NotifyCenterTest, ReadsNoFileOfAFolderThatIsGone) {
  center->post("name");  // keeps the file open, and watches nothing
  fs::rename(path, folder / "elsewhere");
  const auto poster = centerOf(path);  // as in another process
  poster->post("name");
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  poster->post("name");
  EXPECT_TRUE(reaches(count, 1));
}

TEST_F(NotifyCenterTest, SweepsFilesNobodyPostedLately) {
  center->post("old");
  center->post("new");
  const auto old =
      fs::file_time_type::clock::now() - std::chrono::seconds(NotifyFolder::quietSeconds + 10);
  fs::last_write_time(fileOf("old"), old);
  std::atomic<int> count{0};
  const auto observer = counting("old", count);
  const auto another = centerOf(path);  // a new process sweeps with the first file it makes
  another->post("newer");
  EXPECT_FALSE(fs::exists(fileOf("old")));
  EXPECT_TRUE(fs::exists(fileOf("new")));
  settle();
  EXPECT_EQ(count, 0);
  center->post("old");
  EXPECT_TRUE(reaches(count, 1));
}

TEST_F(NotifyCenterTest, ReportsAFolderWithoutRoomAndGoesOnAfterwards) {
  const NotifyFolder nowhere("", Sharing::user);
  EXPECT_THROW(nowhere.post("name"), SystemError);
  // Cut in the middle of the numbers, as by a poster that died: not a post, and healed by the next.
  center->post("name");
  fs::resize_file(fileOf("name"), 20);
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  fs::resize_file(fileOf("name"), 10);
  settle();
  EXPECT_EQ(count, 0);
  center->post("name");
  EXPECT_TRUE(reaches(count, 1));
}

}  // namespace
}  // namespace velum
