#include "Velum/UnfairLock.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace velum {
namespace {

TEST(UnfairLock, LetsOneThreadInAtATimeAndWakesThoseWhoWait) {
  constexpr int threads = 8;
  constexpr int turns = 5000;
  UnfairLock lock;
  int inside = 0;
  long total = 0;
  std::vector<std::thread> workers;
  for (int i = 0; i < threads; ++i) {
    workers.emplace_back([&, i] {
      for (int turn = 0; turn < turns; ++turn) {
        const std::lock_guard guard(lock);
        EXPECT_EQ(++inside, 1);
        ++total;
        if (turn % 500 == i) std::this_thread::yield();  // others fall asleep waiting
        --inside;
      }
    });
  }
  for (auto& worker : workers) worker.join();
  EXPECT_EQ(total, static_cast<long>(threads) * turns);
}

TEST(UnfairLock, TriesWithoutWaiting) {
  UnfairLock lock;
  ASSERT_TRUE(lock.try_lock());
  std::thread([&] { EXPECT_FALSE(lock.try_lock()); }).join();
  lock.unlock();
  std::thread([&] {
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
  }).join();
}

TEST(UnfairLock, WorksUnderAConditionVariable) {
  UnfairLock lock;
  std::condition_variable_any changed;
  bool isSet = false;
  std::thread setter([&] {
    const std::lock_guard guard(lock);
    isSet = true;
    changed.notify_one();
  });
  {
    std::unique_lock guard(lock);
    changed.wait(guard, [&] { return isSet; });
  }
  setter.join();
}

#ifndef NDEBUG
TEST(UnfairLock, StopsDebugBuildsThatMisuseIt) {
  EXPECT_DEATH(
      {
        UnfairLock lock;
        lock.lock();
        lock.lock();
      },
      "a thread locked it twice");
  EXPECT_DEATH(UnfairLock().unlock(), "not held by this thread");
  EXPECT_DEATH(UnfairLock().assertHeld(), "not held by this thread");
  UnfairLock lock;
  const std::lock_guard guard(lock);
  EXPECT_DEATH(std::thread([&] { lock.unlock(); }).join(), "not held by this thread");
  lock.assertHeld();
}
#endif

}  // namespace
}  // namespace velum
