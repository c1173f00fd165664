#include "Velum/KeyStorage.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "Velum/Sealing/StorageError.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using test::CapturedLog;
using test::eventually;
using Dictionary = PropertyList::Dictionary;

constexpr double never = 100'000;  // seconds

PropertyList number(std::int64_t value) {
  return PropertyList(value);
}

std::string encoded(const Dictionary& content) {
  return PropertyList(content).binary();
}

/// What a storage writes to; outlives it.
struct BackEnd {
  std::optional<Dictionary> content() const {
    const std::lock_guard guard(mutex);
    if (!bytes) return std::nullopt;
    const auto list = PropertyList::read(*bytes);
    return list ? std::optional(*list->get<Dictionary>()) : std::nullopt;
  }

  mutable std::mutex mutex;
  std::optional<std::string> bytes;
  std::function<void()> onLoad = [] {};  // may throw
  std::function<void()> onStore = [] {};
  std::atomic<int> writes{0};
};

class Storage final : public KeyStorageBase {
 public:
  Storage(BackEnd& backEnd, double writeDelay)
      : KeyStorageBase("test", writeDelay), backEnd_(backEnd) {}
  Storage(const Storage&) = delete;
  Storage& operator=(const Storage&) = delete;
  ~Storage() override { finish(); }

 protected:
  std::optional<SecretBytes> loadData() override {
    backEnd_.onLoad();
    const std::lock_guard guard(backEnd_.mutex);
    if (!backEnd_.bytes) return std::nullopt;
    return secretBytes(*backEnd_.bytes);
  }
  void storeData(std::string_view bytes) override {
    ++backEnd_.writes;
    backEnd_.onStore();
    const std::lock_guard guard(backEnd_.mutex);
    backEnd_.bytes = bytes;
  }

 private:
  BackEnd& backEnd_;
};

TEST(KeyStorage, WritesEveryChangeBeforeItReturns) {
  BackEnd backEnd;
  Storage storage(backEnd, 0);
  EXPECT_TRUE(storage.isEmpty());
  storage.setObject(number(1), "one");
  EXPECT_EQ(backEnd.content(), (Dictionary{{"one", number(1)}}));
  storage.setObject(number(2), "one");
  storage.setObject(number(3), "three");
  EXPECT_EQ(backEnd.content(), (Dictionary{{"one", number(2)}, {"three", number(3)}}));
  storage.setObject(std::nullopt, "one");
  EXPECT_EQ(backEnd.content(), (Dictionary{{"three", number(3)}}));
  EXPECT_FALSE(storage.object("one"));
  EXPECT_FALSE(storage.isEmpty());
  EXPECT_EQ(backEnd.writes, 4);
  storage.store();  // nothing to write
  EXPECT_EQ(backEnd.writes, 4);

  Storage other(backEnd, 0);
  other.load();
  EXPECT_EQ(other.dictionaryRepresentation(), storage.dictionaryRepresentation());
  Storage delayed(backEnd, never);
  delayed.reset(std::nullopt);
  EXPECT_EQ(backEnd.content(), Dictionary{}) << "a reset waits for nothing";
}

TEST(KeyStorage, RefusesWhatIsNoDictionaryAndWhatCouldNotBeReadAgain) {
  const CapturedLog log;
  BackEnd backEnd;
  Storage storage(backEnd, never);
  storage.setObject(number(1), "one");
  const auto refuses = [&](std::string bytes, const char* text) {
    backEnd.bytes = std::move(bytes);
    storage.load();
    EXPECT_EQ(storage.dictionaryRepresentation(), (Dictionary{{"one", number(1)}}));
    EXPECT_EQ(log.count(text), 1U) << text;
  };
  refuses(PropertyList(PropertyList::Array{}).binary(), "The decoded object is not a dictionary");
  refuses("bplist00 damaged", "Failed to load stored cache: ");
  backEnd.onLoad = [] { throw std::runtime_error("disk on fire"); };
  refuses("", "Failed to load stored cache: disk on fire");

  // Nor is anything written that could not be read again.
  BackEnd other;
  Storage writing(other, 0);
  EXPECT_TRUE(writing.setObject(number(1), "one"));
  EXPECT_FALSE(writing.setObject(PropertyList(std::string(std::size_t{17} << 20U, 'x')), "large"));
  EXPECT_EQ(other.content(), (Dictionary{{"one", number(1)}}));
  EXPECT_TRUE(writing.setObject(std::nullopt, "large"));
}

TEST(KeyStorage, WritesNoMoreThanOncePerDelay) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds delay{20};
  BackEnd backEnd;
  Storage storage(backEnd, std::chrono::duration<double>(delay).count());
  const auto start = Clock::now();
  std::int64_t changes = 0;
  // Long enough for several periods, however fast the machine is.
  for (; backEnd.writes < 5; ++changes) {
    storage.setObject(number(changes), "key");
    if (changes % 64 == 0) std::this_thread::yield();
    ASSERT_LT(Clock::now() - start, test::deadline);
  }
  storage.store();
  // Time only adds to what is allowed, so a slow machine fails nothing.
  EXPECT_LE(backEnd.writes, (Clock::now() - start) / delay + 2);
  // The period after an explicit write has a write of its own.
  const int writes = backEnd.writes;
  storage.setObject(number(-1), "key");
  EXPECT_TRUE(eventually([&] { return backEnd.content() == Dictionary{{"key", number(-1)}}; }));
  EXPECT_EQ(backEnd.writes, writes + 1);
}

TEST(KeyStorage, ChangesMadeByTheBackEndAreWrittenAfterwards) {
  BackEnd backEnd;
  Storage storage(backEnd, 0);
  backEnd.onStore = [&] {
    if (backEnd.writes == 1) storage.setObject(number(2), "inside");
  };
  storage.setObject(number(1), "one");
  EXPECT_TRUE(eventually([&] {
    return backEnd.content() == Dictionary{{"inside", number(2)}, {"one", number(1)}};
  }));
  backEnd.onStore = [&] {
    storage.setObject(number(4), "one");
    throw StorageError("disk full");
  };
  EXPECT_FALSE(storage.setObjects({{"one", number(3)}}));
  EXPECT_EQ(storage.object("one"), number(4)) << "taken back with what could not be written";
  backEnd.onStore = [] {};
}

TEST(KeyStorage, ReadsWhatWasOutOfReachBeforeItReplacesIt) {
  const CapturedLog log;
  BackEnd backEnd;
  backEnd.bytes = encoded({{"changed", number(1)}, {"kept", number(2)}, {"removed", number(3)}});
  backEnd.onLoad = [] { throw StorageUnavailable("locked"); };
  Storage storage(backEnd, 0);
  storage.load();
  EXPECT_TRUE(log.has("Failed to load stored cache: locked"));
  storage.setObject(number(4), "changed");
  storage.setObject(std::nullopt, "removed");
  EXPECT_EQ(backEnd.writes, 0);
  EXPECT_EQ(log.count("Failed to store cache: locked"), 2U);

  backEnd.onLoad = [] {};
  storage.setObject(number(5), "new");
  EXPECT_EQ(backEnd.content(),
            (Dictionary{{"changed", number(4)}, {"kept", number(2)}, {"new", number(5)}}));
  EXPECT_EQ(storage.dictionaryRepresentation(), backEnd.content());

  // What was read once is known: being out of reach later loses nothing.
  backEnd.onLoad = [] { throw StorageUnavailable("locked"); };
  storage.load();
  storage.setObject(std::nullopt, "new");
  EXPECT_EQ(backEnd.content(), (Dictionary{{"changed", number(4)}, {"kept", number(2)}}));
}

TEST(KeyStorage, ConcurrentWritesNeverOverlapNorLoseAChangeNorOutliveTheStorage) {
  constexpr int threadCount = 4;
  constexpr int changes = 20;
  BackEnd backEnd;
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  backEnd.onStore = [&] {
    if (++inside != 1) ++overlaps;
    std::this_thread::yield();
    --inside;
  };
  for (int round = 0; round < 100; ++round) {
    // About as long as the delay, so that writes begin before, while and after it goes.
    Storage storage(backEnd, 1e-5 * (round % 20));
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
      threads.emplace_back([&storage, thread] {
        for (int index = 0; index < changes; ++index) {
          const std::string key = std::to_string(thread) + "." + std::to_string(index);
          storage.setObject(number(index), key);
          EXPECT_EQ(storage.object(key), number(index));
          if (index % 10 == 0) storage.store();
        }
      });
    }
    threads.clear();  // waits for them
    storage.setObject(number(round), "round");
  }
  EXPECT_EQ(overlaps, 0);
  const Dictionary content = backEnd.content().value_or(Dictionary{});
  EXPECT_EQ(content.size(), threadCount * changes + 1U);
  EXPECT_EQ(content.at("round"), number(99));
}

TEST(KeyStorage, LeavesItsChangesToTheParentInAForkedChild) {
  BackEnd backEnd;
  Storage storage(backEnd, 1);  // seconds: nothing is written while the process forks
  storage.setObject(number(1), "one");
  test::inChild([&] {
    const int before = backEnd.writes;
    storage.store();
    EXPECT_EQ(backEnd.writes, before);
    storage.setObject(PropertyList(true), "child");
    EXPECT_TRUE(eventually([&] { return backEnd.writes > before; }))
        << "nobody writes in the child";
  });
  storage.store();
  EXPECT_EQ(backEnd.content(), (Dictionary{{"one", number(1)}}));
}

TEST(KeyStorageDeathTest, StopsTheProcessWhereTheSubclassHasNothing) {
  class Base : public KeyStorageBase {
   public:
    Base() : KeyStorageBase("test", 0) {}
    using KeyStorageBase::deleteData;
  };
  EXPECT_DEATH(Base().load(), "Must be implemented in subclass");
  EXPECT_DEATH(Base().setObject(number(1), "key"), "Must be implemented in subclass");
  EXPECT_DEATH(Base().deleteData(), "Must be implemented in subclass");
}

}  // namespace
}  // namespace velum
