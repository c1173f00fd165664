#include "Velum/Platform/Linux/Notify/NotifyFolder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "Velum/Base/SystemError.h"
#include "tests/Platform/Linux/NotifyCenterTest.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/Waiting.h"
namespace velum {
namespace {

namespace fs = std::filesystem;

TEST_F(NotifyCenterTest, GoesOnWhenTheFolderIsRemovedOrReplaced) {
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  const auto poster = centerOf(path);  // as in another process
  int wanted = 0;
  const auto expectNext = [&](NotifyCenter& posting) {
    posting.post("name");
    EXPECT_TRUE(reaches(count, ++wanted));
    settle();
    EXPECT_EQ(count, wanted);
  };
  // The observer makes it again at once, perhaps before all is gone.
  const auto removeFolder = [&] {
    return test::eventually([&] {
      std::error_code error;
      fs::remove_all(path, error);
      return !error;
    });
  };
  expectNext(*poster);
  EXPECT_TRUE(removeFolder());
  expectNext(*poster);
  fs::rename(path, folder / "elsewhere");
  expectNext(*poster);
  fs::create_directory(folder / "other");
  fs::permissions(folder / "other", fs::perms::owner_all);
  EXPECT_TRUE(test::eventually([&] {
    std::error_code error;
    if (removeFolder()) fs::rename(folder / "other", path, error);
    return !error;
  }));
  expectNext(*poster);
  EXPECT_TRUE(removeFolder());  // of which the first poster has a file open
  expectNext(*centerOf(path));
}

TEST_F(NotifyCenterTest, TriesQuietlyToWatchAFolderThatItCanNotMake) {
  const std::string file = folder / "file";
  std::atomic<int> count{0};
  const auto observer = counting("name", count);
  for (const fs::path& place : {fs::path(path), fs::path(fileOf("name")).parent_path()}) {
    const int before = count;
    const test::CapturedLog log;
    test::writeFile(file, "in the way");
    ASSERT_EQ(::renameat2(AT_FDCWD, file.c_str(), AT_FDCWD, place.c_str(), RENAME_EXCHANGE), 0);
    EXPECT_TRUE(test::eventually([&] { return log.has("E: "); }));
    EXPECT_THROW(center->post("name"), SystemError);
    EXPECT_THROW(counting("name", count), SystemError);
    const std::clock_t start = std::clock();
    fs::remove(place);
    fs::remove_all(file);
    centerOf(path)->post("name");  // as in another process
    EXPECT_TRUE(reaches(count, before + 1));
    EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 2) << "it did not pause between its tries";
    EXPECT_EQ(log.count("E: "), 1U);
  }
}

/// The center of the machine, in a folder of its own: the test's is its owner, as root is of the
/// real one.
class SystemNotifyCenterTest : public NotifyCenterTest {
 protected:
  static constexpr unsigned other = 65534;

  static std::shared_ptr<NotifyCenterLinux> systemCenterOf(const std::string& path) {
    return NotifyCenterLinux::make(path, Sharing::all);
  }
  std::string ownFileOf(std::string_view name) const {
    return fileOf(name) + '#' + std::to_string(::geteuid());
  }
  void asOtherUser(const std::function<void()>& body) const {
    fs::permissions(folder.path(), fs::perms::others_exec, fs::perm_options::add);
    test::inChild([&] {
      ASSERT_EQ(::setgroups(0, nullptr), 0);
      ASSERT_EQ(::setgid(other), 0);
      ASSERT_EQ(::setuid(other), 0);
      body();
    });
  }

  std::shared_ptr<NotifyCenterLinux> system = systemCenterOf(path);
};

TEST_F(SystemNotifyCenterTest, LetsAllUsersPostAndNobodyChangeWhatOthersPosted) {
  const mode_t before = ::umask(0077);
  std::atomic<int> count{0};
  const auto observer = system->addObserver("name", [&] { ++count; });
  system->post("name");
  ::umask(before);
  EXPECT_TRUE(reaches(count, 1));
  EXPECT_EQ(test::modeOf(path), 0755);
  EXPECT_EQ(test::modeOf(fs::path(fileOf("name")).parent_path()), 01777);
  EXPECT_EQ(test::modeOf(ownFileOf("name")), 0644);
  if (::geteuid() != 0) return;
  for (int round = 0; round < 2; ++round) {
    asOtherUser([&] {
      system->post("name");
      const auto mine = systemCenterOf(path);
      std::binary_semaphore told{0};
      const auto hearing = mine->addObserver("name", [&] { told.release(); });
      mine->post("name");
      EXPECT_TRUE(told.try_acquire_for(test::deadline));
    });
    EXPECT_TRUE(reaches(count, 2 + round));
  }
}

// A user who finds something else in his file's place takes another; in the scope of a user that is
// the user's own mistake, and told.
TEST_F(SystemNotifyCenterTest, WritesToNothingThatStandsInTheFilesPlace) {
  const test::CapturedLog log;
  makeGroups();
  const std::string victim = folder / "victim";
  test::writeFile(victim, "precious");
  const std::vector<std::function<void(const std::string&)>> obstacles{
      [&](const auto& file) { fs::create_symlink(victim, file); },
      [&](const auto& file) { fs::create_symlink(folder / "nowhere", file); },
      [&](const auto& file) { fs::create_hard_link(victim, file); },
      [&](const auto& file) { fs::create_directory(file); },
      [&](const auto& file) { ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0); },
      [&](const auto& file) {  // another user's, where a test may do that
        test::writeFile(file, std::string(100'000, 'x'));
        ASSERT_TRUE(::geteuid() != 0 || ::chown(file.c_str(), other, other) == 0);
      }};
  for (std::size_t i = 0; i < obstacles.size(); ++i) {
    const std::string name = std::to_string(i);
    std::atomic<int> count{0};
    obstacles[i](fileOf(name));
    if (i < 5) {
      const auto mine = counting(name, count);
      EXPECT_THROW(center->post(name), SystemError) << name;
      for (int n = 0; i == 2 && n < 3; ++n) test::writeFile(fileOf(name), "precious");
      settle();
    }
    fs::permissions(path, fs::perms(0755));
    obstacles[i](ownFileOf(name));
    const auto observer = system->addObserver(name, [&] { ++count; });
    for (int round = 1; round <= 2; ++round) {
      system->post(name);
      EXPECT_TRUE(reaches(count, round)) << name;
    }
    // As in another process, which does not know the first one's file.
    systemCenterOf(path)->post(name);
    EXPECT_TRUE(reaches(count, 3)) << name;
    fs::permissions(path, fs::perms(0700));
  }
  EXPECT_EQ(test::readFile(victim), "precious");
  EXPECT_FALSE(fs::exists(folder / "nowhere"));
  EXPECT_THAT(log.texts(), ::testing::ElementsAre(::testing::HasSubstr("Refused")));
}

// Whoever could change a folder could lead root's files elsewhere.
TEST_F(SystemNotifyCenterTest, UsesNoFolderThatOthersCouldReplace) {
  makeGroups();
  const auto expectNothing = [&](const fs::path& folderOfOthers) {
    EXPECT_THROW(system->post("name"), SystemError);
    EXPECT_THROW(system->addObserver("name", [] {}), SystemError);
    NotifyFolder(path, Sharing::all).sweep();
    const fs::directory_iterator files(folderOfOthers);
    EXPECT_EQ(std::distance(files, fs::directory_iterator()), 1);
  };
  const auto old =
      fs::file_time_type::clock::now() - std::chrono::seconds(NotifyFolder::quietSeconds + 10);
  const fs::path elsewhere = folder / "elsewhere";
  test::writeFile(elsewhere / "file", "precious");
  fs::permissions(path, fs::perms(0750));
  fs::last_write_time(elsewhere / "file", old);
  EXPECT_THROW(center->addObserver("name", [] {}), SystemError) << "the user's scope";
  fs::permissions(path, fs::perms(01777));
  const fs::path group = fs::path(fileOf("name")).parent_path();
  expectNothing(elsewhere);
  fs::permissions(path, fs::perms(0755));
  fs::remove(group);
  fs::create_directory_symlink(elsewhere, group);
  expectNothing(elsewhere);
  if (::geteuid() != 0) return;
  fs::remove(group);
  fs::rename(elsewhere, group);
  ASSERT_EQ(::chown(group.c_str(), other, other), 0);
  expectNothing(group);
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
  center->post("future");
  const auto now = fs::file_time_type::clock::now();
  const std::chrono::seconds quiet(NotifyFolder::quietSeconds + 10);
  fs::last_write_time(fileOf("old"), now - quiet);
  fs::last_write_time(fileOf("future"), now + quiet);
  std::atomic<int> count{0};
  const auto observer = counting("old", count);
  const auto another = centerOf(path);  // a new process sweeps with the first file it makes
  another->post("newer");
  EXPECT_FALSE(fs::exists(fileOf("old")));
  EXPECT_FALSE(fs::exists(fileOf("future")));
  EXPECT_TRUE(fs::exists(fileOf("new")));
  settle();
  EXPECT_EQ(count, 0);
  center->post("old");
  EXPECT_TRUE(reaches(count, 1));
}

TEST_F(NotifyCenterTest, TakesWhatAPosterLeftUnfinishedForNoPost) {
  std::atomic<int> count{0};
  center->post("name");
  fs::resize_file(fileOf("name"), 20);
  const auto observer = counting("name", count);
  fs::resize_file(fileOf("name"), 10);
  settle();
  EXPECT_EQ(count, 0);
  center->post("name");  // which heals it
  EXPECT_TRUE(reaches(count, 1));
}

}  // namespace
}  // namespace velum
