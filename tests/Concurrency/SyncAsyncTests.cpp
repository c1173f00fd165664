#include "Velum/Concurrency/SyncAsync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <optional>
#include <semaphore>
#include <thread>

#include "Velum/Base/Deadline.h"
#include "Velum/Concurrency/ThreadLocal.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using namespace std::chrono_literals;

TEST(SerialJob, ReturnsTheValueOfABodyThatRunsElsewhere) {
  const auto caller = std::this_thread::get_id();
  const SyncAsync::SerialJob<std::unique_ptr<int>> job([caller] {
    EXPECT_NE(std::this_thread::get_id(), caller);
    return std::make_unique<int>(7);
  });
  EXPECT_EQ(*job.run(), 7);
  EXPECT_EQ(*job.run(test::deadline).get(), 7) << "a job may run again";
}

TEST(SerialThrowingJob, HandsTheBodysErrorToTheCaller) {
  const SyncAsync::SerialThrowingJob<int> failing([]() -> int { throw std::out_of_range("why"); });
  EXPECT_THROW(failing.run(), std::out_of_range);
  const auto result = failing.run(test::deadline);
  EXPECT_TRUE(!result.hasValue() && !result.timedOut() && result.error() != nullptr);
  bool ran = false;
  SyncAsync::SerialThrowingJob<void>([&] { ran = true; }).run();
  EXPECT_TRUE(ran);
}

TEST(SerialThrowingJob, GivesUpWaitingWhileTheBodyRunsOn) {
  const auto unblock = std::make_shared<std::counting_semaphore<1>>(0);
  const auto isOver = std::make_shared<std::atomic<bool>>(false);
  const SyncAsync::SerialThrowingJob<std::string> job([=] {
    unblock->acquire();
    isOver->store(true);
    return std::string(1000, 'x');
  });
  auto result = job.run(1ms);
  EXPECT_TRUE(!result.hasValue() && result.timedOut() && result.error() == nullptr);
  EXPECT_THROW(std::move(result).get(), std::runtime_error);
  unblock->release();
  EXPECT_TRUE(test::eventually([&] { return isOver->load(); }));
}

int depthOf(int jobs) {
  return jobs == 0 ? 0 : SyncAsync::SerialJob<int>([=] { return depthOf(jobs - 1) + 1; }).run();
}

// Every body waits for a job of its own; there must be threads for all of them.
TEST(SerialJob, MayWaitForJobsOfItsOwnToAnyDepth) {
  EXPECT_EQ(depthOf(100), 100);
}

TEST(SyncAsync, WaitsHoweverLongItMay) {
  constexpr auto forEver = std::chrono::nanoseconds::max();
  for (const auto timeout : {forEver, forEver - 1ns, forEver / 2}) {
    SyncAsync runner("jobs");
    std::counting_semaphore<1> unblock(0);
    runner.async([&] { unblock.acquire(); });
    EXPECT_FALSE(runner.wait(1ms));
    const SyncAsync::SerialJob<int> job([&] {
      unblock.release();
      return runner.wait(timeout) ? 7 : 0;
    });
    EXPECT_EQ(job.run(timeout).get(), 7);
    EXPECT_TRUE(runner.wait());
  }
  using Seconds = std::chrono::duration<double>;
  EXPECT_EQ(bounded(Seconds(1.5)), 1500ms);
  EXPECT_EQ(bounded(Seconds(1e300)), bounded(forEver));
  EXPECT_EQ(bounded(Seconds(-1)), 0ns);
  EXPECT_EQ(bounded(Seconds(std::nan(""))), 0ns);
}

TEST(ThreadLocal, HoldsAValuePerThreadAndPerHolder) {
  int made = 0;
  ThreadLocal<int> first([&] { return ++made; });
  ThreadLocal<int> second([&] { return first.value() + 100; });
  EXPECT_EQ(second.value(), 101);
  first.value() = 50;
  std::thread([&] { EXPECT_EQ(first.value(), 2); }).join();
  EXPECT_EQ(first.value() + second.value(), 151);
}

TEST(ThreadLocal, ForgetsTheValuesOfAHolderThatIsGone) {
  using Holder = ThreadLocal<std::shared_ptr<int>>;
  const auto token = std::make_shared<int>();
  const auto make = [&] { return token; };
  for (int i = 0; i < 50; ++i) {  // new holders come to stand where old ones stood
    std::optional<Holder> holder(std::in_place, make);
    EXPECT_EQ(holder->value(), token);
  }
  EXPECT_LE(token.use_count(), 3);
  std::thread([&] { Holder(make).value(); }).join();
  EXPECT_LE(token.use_count(), 3);
}

// Objects that live as long as a thread end in any order, and each may still need another's value.
TEST(ThreadLocal, GivesValuesWhileTheThreadEnds) {
  static ThreadLocal<std::string> names([] { return std::string(100, 'n'); });
  static std::string asked;
  struct Asking {
    explicit Asking(char id_) : id(id_) {}
    ~Asking() { asked += names.value().size() == 100 ? id : '?'; }
    char id;
  };
  asked.clear();
  using Holder = ThreadLocal<std::unique_ptr<Asking>>;
  std::thread([] {
    static thread_local Asking older('o');
    EXPECT_EQ(older.id, 'o');
    Holder holder([] { return std::make_unique<Asking>('v'); });
    EXPECT_NE(holder.value(), nullptr);
    EXPECT_EQ(names.value().size(), 100U);
  }).join();
  EXPECT_EQ(asked, "vo");
  std::make_unique<Holder>([] { return std::make_unique<Asking>('g'); })->value();
  Holder([] { return nullptr; }).value();  // the thread drops the values of those who are gone
  EXPECT_EQ(asked, "vog");
}

}  // namespace
}  // namespace velum
