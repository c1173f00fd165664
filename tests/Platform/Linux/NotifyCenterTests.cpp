#include "Velum/Platform/NotifyCenter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <latch>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "tests/Platform/Linux/NotifyCenterTest.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/Waiting.h"
namespace velum {
namespace {

namespace fs = std::filesystem;

TEST_F(NotifyCenterTest, TakesNamesOfAnyLengthAndAnyBytes) {
  std::vector<std::string> names{"",          "..",  ".hidden",     "=equals",
                                 "../escape", "a#b", "\xFF\xFE\n%s"};
  for (const char end : {'\0', 'x'}) {  // differ in their last byte only
    for (const std::size_t size : {2U, 200U, 201U, 1'000'000U}) {
      names.push_back(std::string(size - 1, '\0') + end);
    }
  }
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
  std::atomic<int> second{0};
  std::atomic<int> quiet{0};
  const auto observer = counting("name", heard);
  const auto another = counting("name", second);
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
  EXPECT_EQ(second, heard);
}

TEST_F(NotifyCenterTest, ComparesGenerationsWhenTheKernelLostEvents) {
  std::atomic<int> lost{0};
  std::atomic<int> quiet{0};
  std::binary_semaphore begun{0};
  std::binary_semaphore goOn{0};
  const auto losing = counting("lost", lost);
  const auto quietOne = counting("quiet", quiet);
  center->post("quiet");
  EXPECT_TRUE(reaches(quiet, 1));
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
  const std::string first = neighbourOf("lost");  // whose group is watched
  const std::string second = neighbourOf("lost", std::stoi(first) + 1);
  for (int i = 0; i < events / 2 + 10; ++i) {
    center->post(first);
    center->post(second);
  }
  center->post("lost");
  goOn.release();
  EXPECT_TRUE(reaches(lost, 1));
  settle();
  EXPECT_EQ(lost, 1);
  EXPECT_EQ(quiet, 1);
}

TEST_F(NotifyCenterTest, ObserversMayBeRemovedAndAddedInCallbacks) {
  std::atomic<int> own{0};
  std::atomic<int> added{0};
  Observer self;
  Observer late;
  std::latch ready(1);
  self = center->addObserver("name", [&] {
    ready.wait();
    ++own;
    late = counting("name", added);
    self.reset();
  });
  ready.count_down();
  for (const auto* count : {&own, &added}) {
    center->post("name");
    EXPECT_TRUE(reaches(*count, 1));
    settle();
  }
  EXPECT_EQ(own, 1);
  EXPECT_EQ(added, 1);
}

TEST_F(NotifyCenterTest, CallsNoCallbackAfterItsObserverWasRemoved) {
  const std::jthread poster([&](const std::stop_token& end) {
    while (!end.stop_requested()) center->post("name");
  });
  for (int i = 0; i < 300; ++i) {
    const auto isRemoved = std::make_shared<std::atomic<bool>>(false);
    const auto calls = std::make_shared<std::atomic<int>>(0);
    auto observer = center->addObserver("name", [isRemoved, calls] {
      EXPECT_FALSE(*isRemoved);
      ++*calls;
    });
    EXPECT_TRUE(reaches(*calls, 1));
    observer.reset();
    settle();  // a call that had begun is over
    *isRemoved = true;
  }
}

TEST_F(NotifyCenterTest, ABusyQueueKeepsNobodyElseWaiting) {
  const auto queue = DispatchQueue::serialWithThread("handlers");
  std::binary_semaphore begun{0};
  std::binary_semaphore goOn{0};
  std::atomic<int> calls{0};
  const auto handler = center->addObserver("long", queue, [&] {
    begun.release();
    goOn.acquire();
    ++calls;
  });
  center->post("long");
  ASSERT_TRUE(begun.try_acquire_for(test::deadline));
  // A thread that waits reads itself, and hands on what is the queue's.
  const auto answer = center->expect("answer");
  center->post("long");
  center->post("answer");
  EXPECT_TRUE(answer->wait(test::deadline));
  EXPECT_FALSE(answer->wait(std::chrono::milliseconds(1)));
  // For an observer elsewhere it is read elsewhere.
  std::atomic<int> count{0};
  auto observer = counting("name", count);
  center->post("name");
  EXPECT_TRUE(reaches(count, 1));
  EXPECT_EQ(calls, 0);
  for (int round = 1; round <= 3; ++round) {
    goOn.release();
    EXPECT_TRUE(reaches(calls, round));
    if (round == 2) observer.reset();
    if (round >= 2) center->post("long");
    EXPECT_TRUE(begun.try_acquire_for(test::deadline)) << round;
  }
  goOn.release();
  EXPECT_TRUE(reaches(calls, 4));
}

TEST_F(NotifyCenterTest, WhoObservesANameAgainHearsWhatComesAndNothingOlder) {
  const auto poster = centerOf(path);  // as in another process
  constexpr std::chrono::milliseconds moment(1);
  // Keeps the name's group watched, also while nobody observes the name.
  auto neighbour = center->expect(neighbourOf("name"));
  for (int round = 0; round < 64; ++round) {
    auto name = center->expect("name");
    EXPECT_FALSE(name->wait(moment)) << round;
    poster->post("name");
    const bool isAwaited = (round & 1) == 0;
    if (isAwaited) {
      EXPECT_TRUE(name->wait(test::deadline)) << round;
    }
    name.reset();
    if ((round & 2) != 0) poster->post("name");
    while ((round & 4) != 0 && neighbour->wait(moment)) {  // reads what is there, for nobody
    }
    if ((round & 8) != 0) fs::remove(fileOf("name"));
    if ((round & 16) != 0) neighbour.reset();
    if ((round & 32) != 0) poster->post("name");
    if (!neighbour) neighbour = center->expect(neighbourOf("name"));
  }
}

TEST_F(NotifyCenterTest, HearsNothingOlderWhileAnotherThreadIsReading) {
  std::atomic<int> others{0};
  const std::string neighbour = neighbourOf("name");
  const auto other = counting(neighbour, others);  // has a thread read the group
  std::atomic<int> count{0};
  for (int round = 0; round < 5000; ++round) {
    counting("name", count).reset();  // what the name holds is known
    center->post("name");
    // For a different time each, so that the thread is at each of its steps once.
    std::atomic<int> spins{0};
    while (spins < round % 500 * 10) ++spins;
    const auto late = counting("name", count);
    if (round % 100 == 99) settle();
    ASSERT_EQ(count, 0) << round;
  }
}

TEST_F(NotifyCenterTest, ObservesAThousandNamesWithOneDescriptor) {
  test::inChild([&] {  // without the threads of earlier centers, which close theirs late
    std::atomic<int> count{0};
    std::vector<Observer> first;
    for (int i = 0; i < 20; ++i) {
      first.push_back(counting("first" + std::to_string(i), count));
      center->post("first" + std::to_string(i));  // keeps a few files open
    }
    EXPECT_TRUE(reaches(count, 20));
    const auto before = test::openDescriptors();
    {
      std::vector<Observer> observers;
      for (int i = 0; i < 1000; ++i) observers.push_back(counting(std::to_string(i), count));
      for (int i = 0; i < 1000; ++i) center->post(std::to_string(i));
      EXPECT_TRUE(reaches(count, 1020));
      EXPECT_EQ(test::openDescriptors(), before);
    }
    auto another = centerOf(path);
    auto kept = another->addObserver("name", [] {});
    another.reset();
    kept.reset();  // the last that has their queue, whose thread closes the descriptors
    EXPECT_TRUE(test::eventually([&] { return test::openDescriptors() == before; }));
  });
}

TEST_F(NotifyCenterTest, AForkedChildBeginsAnewAndLeavesTheParentItsEvents) {
  std::atomic<int> count{0};
  auto observer = counting("name", count);
  const auto expected = center->expect("other");
  center->post("name");
  EXPECT_TRUE(reaches(count, 1));
  for (const bool drops : {false, true}) {
    test::inChild([&] {
      if (drops) observer.reset();  // before it observes anything itself
      const int before = count;
      EXPECT_FALSE(expected->wait(std::chrono::milliseconds(1)));
      std::atomic<int> own{0};
      const auto mine = counting("name", own);
      for (int i = 1; i <= 2; ++i) {
        center->post("name");
        EXPECT_TRUE(reaches(own, i));
      }
      settle();
      EXPECT_EQ(count, before);
    });
  }
  EXPECT_TRUE(reaches(count, 2));
}

}  // namespace
}  // namespace velum
