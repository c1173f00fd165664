#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <semaphore>
#include <string>
#include <string_view>

#include "Velum/Platform/Linux/Notify/NotifyCenterLinux.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {

/// A notify center in a folder of its own.
class NotifyCenterTest : public ::testing::Test {
 protected:
  using Observer = std::unique_ptr<NotifyCenter::Observer>;
  using Sharing = NotifyFolder::Sharing;

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
  // Another name, of the same group: a number, the first from `number` on.
  static std::string neighbourOf(std::string_view name, int number = 0) {
    const std::size_t group = NotifyFolder::groupOf(NotifyFolder::fileName(name));
    while (NotifyFolder::groupOf(NotifyFolder::fileName(std::to_string(number))) != group) ++number;
    return std::to_string(number);
  }
  std::string fileOf(std::string_view name) const {
    return path + '/' + NotifyFolder::fileName(name);
  }

  test::TemporaryFolder folder;
  std::string path = folder / "notify";
  std::shared_ptr<NotifyCenterLinux> center = centerOf(path);
};

}  // namespace velum
