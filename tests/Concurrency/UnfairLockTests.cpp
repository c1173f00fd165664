#include "Velum/Concurrency/UnfairLock.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <latch>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Platform/Thread.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

TEST(UnfairLock, LetsOneThreadInAtATime) {
  constexpr int turns = 5000;
  UnfairLock lock;
  int total = 0;
  {
    std::vector<std::jthread> workers;
    for (int i = 0; i < 8; ++i) {
      workers.emplace_back([&] {
        for (int turn = 0; turn < turns; ++turn) {
          const std::lock_guard guard(lock);
          const int before = total;
          if (turn % 500 == 0) std::this_thread::yield();
          total = before + 1;
        }
      });
    }
  }
  EXPECT_EQ(total, 8 * turns);
}

// One unlock wakes one of them, who has to know that there are more.
TEST(UnfairLock, ForgetsNoneOfThoseWhoSleep) {
  for (int round = 0; round < 10; ++round) {
    auto lock = std::make_unique<UnfairLock>();
    std::array<std::atomic<std::uint32_t>, 3> waiting{};
    std::latch passed(waiting.size());
    std::atomic<int> inside{0};
    lock->lock();
    std::vector<std::thread> threads;
    for (auto& id : waiting) {
      threads.emplace_back([&] {
        id = currentThreadId();
        lock->lock();
        ++inside;
        lock->unlock();
        passed.count_down();
      });
    }
    for (const auto& id : waiting) {
      ASSERT_TRUE(test::eventually([&] { return test::isAsleep(id); }));
    }
    EXPECT_EQ(inside, 0);
    lock->unlock();
    ASSERT_TRUE(test::eventually([&] { return passed.try_wait(); })) << "one sleeps on";
    lock.reset();
    for (auto& thread : threads) thread.join();
  }
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

#ifndef NDEBUG
TEST(UnfairLock, StopsDebugBuildsThatMisuseIt) {
  const auto twice = [](UnfairLock once) {
    once.lock();
    once.lock();
  };
  EXPECT_DEATH(twice(UnfairLock()), "a thread locked it twice");
  EXPECT_DEATH(UnfairLock().unlock(), "not held by this thread");
  EXPECT_DEATH(UnfairLock().assertHeld(), "not held by this thread");
  UnfairLock lock;
  const std::lock_guard guard(lock);
  EXPECT_DEATH(std::thread([&] { lock.unlock(); }).join(), "not held by this thread");
  lock.assertHeld();
}

TEST(ForkSafeLock, StopsDebugBuildsThatTakeItOutOfOrder) {
  using Stage = ForkSafeLock::Stage;
  ForkSafeLock service(Stage::service);
  ForkSafeLock other(Stage::service);
  ForkSafeLock handler(Stage::handler);
  ForkSafeLock leaf(Stage::leaf);
  ForkSafeTurn turn;  // which no fork waits for
  const auto holding = [&](const auto& work) {
    const std::lock_guard first(service);
    const std::lock_guard second(turn);
    const std::lock_guard third(leaf);
    work();
  };
  holding([] {});
  EXPECT_DEATH(holding([&] { other.lock(); }), "same stage or a later one");
  EXPECT_DEATH(holding([&] { handler.lock(); }), "same stage or a later one");
  EXPECT_DEATH(holding([] { ForkSafeTurn(); }), "made or destroyed while a lock .* is held");
}
#endif

TEST(ForkSafeTurn, IsHeldByTheOnlyThreadOfAChildThatWasForkedInIt) {
  ForkSafeTurn turn;
  const std::lock_guard guard(turn);
  test::inChild([&] { EXPECT_TRUE(turn.isHeld()); });
}

}  // namespace
}  // namespace velum
