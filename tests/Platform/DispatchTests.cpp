#include "Velum/Platform/Dispatch.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <latch>
#include <memory>
#include <new>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Application.h"
#include "Velum/Platform/Thread.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Processes.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class Signal {
 public:
  void raise() { count_.release(); }
  bool wait() { return count_.try_acquire_for(test::deadline); }

 private:
  std::counting_semaphore<> count_{0};
};

TEST(DispatchQueue, RunsSerialWorkOneByOneInOrder) {
  constexpr int items = 2000;
  const auto queue = DispatchQueue::serial("order");
  EXPECT_EQ(queue->label(), "order");
  std::vector<int> order;
  std::atomic<int> running{0};
  DispatchGroup group;
  for (int i = 0; i < items; ++i) {
    group.async(*queue, [&, i] {
      EXPECT_EQ(running++, 0);
      order.push_back(i);
      --running;
    });
  }
  ASSERT_TRUE(group.wait(test::deadline));
  EXPECT_EQ(order.size(), static_cast<std::size_t>(items));
  EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(DispatchQueue, DelaysWorkAtLeastAsLongAsAskedInTheOrderOfTheDelays) {
  const auto queue = DispatchQueue::serial("delays");
  const auto start = Clock::now();
  std::vector<int> order;
  Signal done;
  queue->asyncAfter(std::chrono::nanoseconds::max(), [&] { order.push_back(99); });
  for (const int delay : {40, 20, -1}) {
    queue->asyncAfter(delay * 1ms, [&, delay] {
      EXPECT_GE(Clock::now() - start, delay * 1ms);
      order.push_back(delay);
      if (delay == 40) done.raise();
    });
  }
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(order, (std::vector{-1, 20, 40}));
}

// In fresh processes, because the threads a pool once has it keeps.
TEST(DispatchQueue, StarvesNothingWhenManyItemsBlock) {
  constexpr int blocked = 24;
  for (int round = 0; round < 6; ++round) {
    test::inChild([] {
      std::latch together(blocked);
      DispatchGroup group;
      for (int i = 0; i < blocked; ++i) {
        group.async(DispatchQueue::global(), [&] { together.arrive_and_wait(); });
      }
      ASSERT_TRUE(group.wait(10s)) << "items wait for each other, but not all have a thread";
    });
    if (HasFailure()) return;
  }
  std::latch unblock(1);
  DispatchGroup group;
  for (int i = 0; i < 4; ++i) {
    group.async(*DispatchQueue::serial("blocked"), [&] { unblock.wait(); });
  }
  Signal timer;
  DispatchQueue::serial("free")->asyncAfter(1ms, [&] { timer.raise(); });
  EXPECT_TRUE(timer.wait());
  unblock.count_down();
  EXPECT_TRUE(group.wait(test::deadline));
}

/// As long as it lives, this process gets no more threads. For a child process: the user changes.
class NoThreads {
 public:
  NoThreads() {
    if ((::geteuid() == 0 && ::setuid(65534) != 0) ||  // does not count for root
        ::getrlimit(RLIMIT_NPROC, &before_) != 0) {
      return;
    }
    const rlimit none{0, before_.rlim_max};
    isInForce_ = ::setrlimit(RLIMIT_NPROC, &none) == 0 && startThread("none", [] {}) != 0;
    sigset_t blocked{};
    ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(::sigismember(&blocked, SIGTERM), 0) << "what a thread is started with stayed";
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;
  ~NoThreads() { EXPECT_EQ(::setrlimit(RLIMIT_NPROC, &before_), 0); }

  bool isInForce() const { return isInForce_; }

 private:
  rlimit before_{};
  bool isInForce_ = false;
};

TEST(DispatchQueue, GoesOnWithFewThreadsWhenNoMoreCanBeMade) {
  test::inChild([] {
    Signal done;
    DispatchQueue::global().async([&] { done.raise(); });
    ASSERT_TRUE(done.wait());
    const NoThreads limit;
    if (!limit.isInForce()) GTEST_SKIP() << "can't limit threads here";
    std::latch together(2);
    for (int i = 0; i < 10; ++i) {
      DispatchQueue::global().async([&, i] {
        if (i < 2) together.arrive_and_wait();
        done.raise();
      });
    }
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(done.wait());
  });
}

TEST(DispatchQueue, AsksAgainForItsFirstThread) {
  DispatchGroup group;
  const auto begin = [&](const Work& work) {
    const NoThreads limit;
    if (limit.isInForce()) group.async(DispatchQueue::global(), work);
    return limit.isInForce();
  };
  test::inChild([&] {
    if (!begin([] {})) GTEST_SKIP() << "can't limit threads here";
    EXPECT_TRUE(group.wait(test::deadline)) << "who waits asks again";
  });
  if (HasFailure() || IsSkipped()) return;
  test::inChild([&] {
    EXPECT_TRUE(begin([] { ::_exit(0); }));
    Application::shared().run();  // asks again as well
  });
}

/// What an item hands in comes before what another thread hands in later.
void checkOrder(DispatchQueue& queue, const Work& next) {
  queue.async([&queue, next, order = std::make_shared<std::string>()] {
    queue.async([order] { *order += "own "; });
    std::thread([&queue, order] { queue.async([order] { *order += "other"; }); }).join();
    queue.async([order, next] {
      EXPECT_EQ(*order, "own other");
      next();
    });
  });
}

TEST(DispatchQueue, KeepsTheOrderOfItsOwnThreadAndOthers) {
  test::inChild([] {
    static const auto mainThread = std::this_thread::get_id();
    const auto serial = DispatchQueue::serial("order");
    checkOrder(*serial, [] {
      EXPECT_FALSE(DispatchQueue::isMain());
      checkOrder(DispatchQueue::main(), [] {
        EXPECT_TRUE(DispatchQueue::isMain());
        EXPECT_EQ(std::this_thread::get_id(), mainThread);
        ::_exit(::testing::Test::HasFailure() ? 1 : 0);
      });
    });
    Application::shared().run();
  });
}

/// A work item forks, and parent and child return from it. The parent still gets all its events and
/// work, the child none of that, but what it hands in itself.
void forkInsideAnItem(DispatchQueue& queue) {
  static int parent = 0;
  parent = ::getpid();
  const test::Pipe events;
  const test::Pipe ending;  // the child learns from it that the parent is through
  constexpr int expected = 100;
  std::atomic<int> received{0};
  Signal done;
  const auto isParents = [&done] {
    if (::getpid() != parent) ::_exit(2);
    done.raise();
  };
  const auto source = DispatchSource::readable(events.reader.get(), queue, [&] {
    char byte = 0;
    isParents();
    if (::read(events.reader.get(), &byte, 1) == 1) ++received;
  });
  std::atomic<pid_t> child{0};
  std::unique_ptr<DispatchSource> childsOwn;
  queue.async([&] {
    const pid_t pid = ::fork();
    if (pid != 0) {
      child = pid;
      return;
    }
    ::alarm(60);
    queue.asyncAfter(1ms, [&] {
      childsOwn = DispatchSource::readable(ending.reader.get(), queue, [] { ::_exit(0); });
    });
  });
  queue.async(isParents);
  queue.asyncAfter(10ms, isParents);
  ASSERT_TRUE(test::eventually([&] { return child > 0; }));
  for (int i = 0; i < expected; ++i) {
    ASSERT_EQ(::write(events.writer.get(), "x", 1), 1);
    ASSERT_TRUE(test::eventually([&] { return received > i; })) << "the child took event " << i;
  }
  for (int i = 0; i < expected + 2; ++i) ASSERT_TRUE(done.wait());
  ASSERT_EQ(::write(ending.writer.get(), "x", 1), 1);
  EXPECT_EQ(test::exitStatus(child), 0) << "of the child, which runs its own queues from then on";
}

TEST(DispatchQueue, ChildForkedInsideAnItemLeavesTheParentsWorkAlone) {
  test::inChild([] { forkInsideAnItem(*DispatchQueue::serial("forking")); });
  test::inChild([] {
    std::thread([] {
      forkInsideAnItem(DispatchQueue::main());
      ::_exit(::testing::Test::HasFailure() ? 1 : 0);
    }).detach();
    Application::shared().run();
  });
}

TEST(DispatchGroup, IsLeftByWorkThatCannotBeHandedIn) {
  struct Full final : DispatchQueue {
    const std::string& label() const noexcept override { std::terminate(); }
    void async(Work) override { throw std::bad_alloc(); }
    void asyncAfter(std::chrono::nanoseconds, Work) override {}
  } queue;
  DispatchGroup group;
  EXPECT_THROW(group.async(queue, [] {}), std::bad_alloc);
  EXPECT_TRUE(group.wait(0ns));
}

TEST(DispatchGroup, StartsEmptyInAForkedChild) {
  DispatchGroup group;
  group.enter();
  test::inChild([&] {
    EXPECT_TRUE(group.wait(std::chrono::nanoseconds::min())) << "of the parent's";
    group.leave();
    Signal go;
    group.async(DispatchQueue::global(), [&] { EXPECT_TRUE(go.wait()); });
    EXPECT_FALSE(group.wait(1ms));
    go.raise();
    EXPECT_TRUE(group.wait(test::deadline));
  });
  EXPECT_FALSE(group.wait(std::chrono::nanoseconds::min()))
      << "the child is none of the parent's business";
  group.leave();
  EXPECT_TRUE(group.wait(0ns));
}

// Each kind of source, made so that it has an event at once and keeps having one.
class EndingSource : public ::testing::TestWithParam<bool> {
 protected:
  std::unique_ptr<DispatchSource> make(Work handler) {
    if (GetParam()) return DispatchSource::timer(0ns, *queue_, std::move(handler), 1ns);
    return DispatchSource::readable(pipe_.reader.get(), *queue_, std::move(handler));
  }
  /// Returns when all that was on its way to the queue has come to it.
  void settle() {
    for (int i = 0; i < 3; ++i) {
      queue_->asyncAfter(1ms, [&] { settled_.raise(); });
      ASSERT_TRUE(settled_.wait());
    }
  }
  void SetUp() override { ASSERT_EQ(::write(pipe_.writer.get(), "ab", 2), 2); }

  const test::Pipe pipe_;
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("source");
  Signal settled_;
};

INSTANTIATE_TEST_SUITE_P(DispatchSource, EndingSource, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Timer" : "Readable"; });

TEST_P(EndingSource, InItsOwnHandlerTellsNothingMoreAndLetsGo) {
  Signal told;
  std::unique_ptr<DispatchSource> source;
  const auto token = std::make_shared<int>();
  queue_->async([&] {
    source = make([&, token] {
      if (++*token == 3) source.reset();
      told.raise();
    });
  });
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(told.wait());
  settle();
  EXPECT_EQ(*token, 3);
  EXPECT_TRUE(test::eventually([&] { return token.use_count() == 1; }));
}

TEST_P(EndingSource, TellsNothingThatAlreadyWaitsInTheQueue) {
  Signal seen;
  std::atomic<int> calls{0};
  std::unique_ptr<DispatchSource> source;
  queue_->async([&] {
    source = make([&] { ++calls; });
    // Events come in order: with this one, that of the source has come to the queue as well.
    const auto later = DispatchSource::timer(1ms, DispatchQueue::global(), [&] { seen.raise(); });
    EXPECT_TRUE(seen.wait());
    source.reset();
  });
  settle();
  EXPECT_EQ(calls, 0);
}

// The reactor gives a closed descriptor's record to the next one, with the event that it has just
// fetched for it.
TEST(DispatchSource, TellsNothingOfTheDescriptorThatWasClosedBeforeItsOwn) {
  const test::Pipe loud;
  const test::Pipe quiet;
  const auto queue = DispatchQueue::serial("source");
  const std::jthread events([&](const std::stop_token& end) {
    while (!end.stop_requested()) {
      char byte = 0;
      ASSERT_EQ(::write(loud.writer.get(), &byte, 1), 1);
      ASSERT_EQ(::read(loud.reader.get(), &byte, 1), 1);
    }
  });
  for (int round = 0; round < 2'000; ++round) {
    auto closed = DispatchSource::readable(loud.reader.get(), *queue, [] {});
    closed.reset();
    const auto own = DispatchSource::readable(quiet.reader.get(), *queue,
                                              [] { ADD_FAILURE() << "there is nothing to read"; });
    Signal settled;
    queue->async([&] { settled.raise(); });
    ASSERT_TRUE(settled.wait());
  }
}

TEST(DispatchSource, RefusesWhatCannotBeWatched) {
  EXPECT_THROW(DispatchSource::readable(-1, DispatchQueue::global(), [] {}), SystemError);
  EXPECT_THROW(DispatchSource::childExit(1, DispatchQueue::global(), [](int) {}), SystemError)
      << "a process, but no child";
  EXPECT_THROW(DispatchSource::childExit(test::noProcess, DispatchQueue::global(), [](int) {}),
               SystemError);
}

}  // namespace
}  // namespace velum
