#include "Velum/Platform/FileEvents.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>

#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr FileEvent all = FileEvent::deleted | FileEvent::written | FileEvent::extended |
                          FileEvent::attribute | FileEvent::link | FileEvent::renamed |
                          FileEvent::revoked;

class FileEventsTest : public ::testing::Test {
 protected:
  using Seen = std::atomic<unsigned>;

  std::unique_ptr<FileEvents::Watch> watch(const std::string& watched, FileEvent events,
                                           Seen& seen) const {
    return FileEvents::shared().watch(
        watched, events, queue, [&seen](FileEvent event) { seen |= static_cast<unsigned>(event); });
  }
  static bool happens(const Seen& seen, FileEvent event) {
    return test::eventually([&] { return (seen & static_cast<unsigned>(event)) != 0; });
  }
  // What happened to `path` so far has been told when an event of a later watch has been.
  void settle() const {
    Seen seen{0};
    test::writeFile(folder / "settle", "");
    const auto last = watch(folder / "settle", FileEvent::written, seen);
    test::writeFile(folder / "settle", "x");
    EXPECT_TRUE(happens(seen, FileEvent::written));
  }

  test::TemporaryFolder folder;
  std::string path = folder / "file";
  std::shared_ptr<DispatchQueue> queue = DispatchQueue::serial("events");
};

TEST_F(FileEventsTest, TellsEachEventOfAFile) {
  test::writeFile(path, "x");
  Seen seen{0};
  auto watched = watch(path, all, seen);
  test::writeFile(path, "xy");
  EXPECT_TRUE(happens(seen, FileEvent::written));
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  EXPECT_TRUE(happens(seen, FileEvent::attribute));
  fs::create_hard_link(path, folder / "link");
  EXPECT_TRUE(happens(seen, FileEvent::link));
  EXPECT_EQ(seen & static_cast<unsigned>(FileEvent::deleted | FileEvent::renamed), 0U);
  fs::rename(path, folder / "moved");
  EXPECT_TRUE(happens(seen, FileEvent::renamed));
  EXPECT_EQ(seen & static_cast<unsigned>(FileEvent::deleted), 0U);
  fs::remove(folder / "link");
  {
    const UniqueFd stillOpen(::open((folder / "moved").c_str(), O_RDONLY | O_CLOEXEC));
    fs::remove(folder / "moved");
    EXPECT_TRUE(happens(seen, FileEvent::deleted));
  }
}

TEST_F(FileEventsTest, TellsEachWatcherOfOneFileOnlyWhatItAskedFor) {
  test::writeFile(path, "x");
  Seen written{0};
  Seen attribute{0};
  const auto first = watch(path, FileEvent::written, written);
  auto second = watch(path, FileEvent::attribute, attribute);
  test::writeFile(path, "xy");
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  EXPECT_TRUE(happens(attribute, FileEvent::attribute));
  EXPECT_TRUE(happens(written, FileEvent::written));
  EXPECT_EQ(written, static_cast<unsigned>(FileEvent::written));
  EXPECT_EQ(attribute, static_cast<unsigned>(FileEvent::attribute));

  second.reset();  // the other keeps the kernel's watch
  written = 0;
  attribute = 0;
  ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
  test::writeFile(path, "xyz");
  EXPECT_TRUE(happens(written, FileEvent::written));
  EXPECT_EQ(attribute, 0U);
}

TEST_F(FileEventsTest, WatchesAnewInAForkedChildWhileTheParentKeepsItsEvents) {
  test::writeFile(path, "x");
  Seen seen{0};
  const auto watched = watch(path, FileEvent::written, seen);
  auto ownQueue = DispatchQueue::serial("dropped in the child");
  const std::weak_ptr<DispatchQueue> droppedQueue = ownQueue;
  auto dropped = FileEvents::shared().watch(path, all, std::move(ownQueue), [](FileEvent) {});
  test::inChild([&] {
    Seen own{0};
    dropped.reset();
    EXPECT_TRUE(droppedQueue.expired()) << "it would end later, under some lock";
    const auto childs = watch(path, FileEvent::attribute, own);
    test::writeFile(path, "xy");
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    EXPECT_TRUE(happens(own, FileEvent::attribute));
    EXPECT_EQ(seen, 0U) << "the parent's watch told the child";
  });
  EXPECT_TRUE(happens(seen, FileEvent::written));
}

}  // namespace
}  // namespace velum
