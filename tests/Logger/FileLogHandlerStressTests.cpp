// The file log handler among other processes: those that write too, delete the file, fork or die.

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <latch>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "Velum/Files/FileLock.h"
#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Platform/Thread.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FileCallHooks.h"
#include "tests/support/LogRecords.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using namespace std::chrono_literals;
using test::onNaming;
using test::onRefusal;
namespace fs = std::filesystem;

constexpr const char* subsystem = "com.example.vpn";
constexpr int processes = 8;
constexpr int threadsEach = 4;

constexpr RotationPolicy neverChecked{.firstCheck = 1h};

class FileLogHandlerStressTest : public ::testing::Test {
 protected:
  // By default with all the patience that a test has.
  std::shared_ptr<FileLogHandler> open(RotationPolicy policy,
                                       std::shared_ptr<SystemLog> log = nullptr,
                                       std::chrono::nanoseconds patience = 2 *
                                                                           test::deadline) const {
    if (!log) log = std::make_shared<test::RecordingSystemLog>();
    return FileLogHandler::create(subsystem, path, true, policy,
                                  {&FileEvents::shared(), std::move(log), patience});
  }
  ~FileLogHandlerStressTest() override {
    onNaming = nullptr;
    onRefusal = nullptr;
  }

  // Writes records that tell which thread they are of and how many came before them, without
  // allocating once it is under way. Threads that do nothing but log keep all others from the
  // locks, so `pause` lets those have their turn.
  static void writeNumbered(FileLogHandler& handler, int records, std::chrono::microseconds pause) {
    const std::string fill(100 + currentThreadId() % 50, 'f');
    fmt::memory_buffer text;
    for (int i = 0; i < records; ++i) {
      text.clear();
      fmt::format_to(std::back_inserter(text), "{} {} {} {}", currentProcessId(), currentThreadId(),
                     i, fill);
      handler.logWithLevel(LogLevel::info, std::chrono::system_clock::now(),
                           {text.data(), text.size()});
      if (pause > 0us) std::this_thread::sleep_for(pause);
    }
  }

  static void writeFromThreads(FileLogHandler& handler, int threads, int records,
                               std::chrono::microseconds pause) {
    std::vector<std::thread> writers;
    for (int thread = 0; thread < threads; ++thread) {
      writers.emplace_back([&handler, records, pause] { writeNumbered(handler, records, pause); });
    }
    for (auto& writer : writers) writer.join();
  }

  // Processes that begin to write when all of them have opened the file, and leave when done.
  std::vector<test::ChildProcess> startWriters(int records, std::chrono::microseconds pause,
                                               RotationPolicy policy) const {
    std::vector<test::ChildProcess> writers;
    for (int i = 0; i < processes; ++i) {
      writers.emplace_back([&, this] {
        auto log = std::make_shared<test::RecordingSystemLog>();
        auto handler = open(policy, log);
        ++*opened;
        ASSERT_TRUE(test::eventually([this] { return *opened == processes; }));
        writeFromThreads(*handler, threadsEach, records, pause);
        const std::weak_ptr<FileLogHandler> remains = handler;
        handler.reset();
        ASSERT_TRUE(test::eventually([&] { return remains.expired(); }));  // no check under way
        for (const auto& [type, text] : log->entries()) {
          EXPECT_EQ(type, SystemLog::Type::normal) << text;
        }
      });
    }
    return writers;
  }

  // Rotates a log until that is told; `meanwhile` the copy is made, but has no name yet.
  void rotate(const char* told, const std::function<void()>& meanwhile) {
    const auto log = std::make_shared<test::RecordingSystemLog>();
    onNaming = [&](const char*) { meanwhile(); };
    test::writeFile(path, "old\n");
    const auto handler = open({.maxSize = 1, .firstCheck = 0ns}, log);
    ASSERT_TRUE(log->waitFor(told));
  }

  // Takes in a file; every record must be whole and, when numbered, be the next of its thread or
  // come later than those of the same file before it.
  void collect(const std::string& file) {
    const auto read = test::readRecords(test::readFile(file), subsystem);
    EXPECT_TRUE(read.broken.empty()) << file << ": " << read.broken.front();
    std::map<unsigned, int> last;
    for (const auto& record : read.whole) {
      int process = 0;
      unsigned thread = 0;
      int number = 0;
      std::istringstream text(record.text);
      if (!(text >> process >> thread >> number)) continue;
      EXPECT_EQ(process, record.process);
      EXPECT_EQ(thread, record.thread);
      EXPECT_TRUE(last.emplace(thread, -1).first->second < number) << "out of order";
      last[thread] = number;
      EXPECT_TRUE(seen[thread].insert(number).second) << "twice: " << record.text;
    }
  }

  void expectAll(int records) const {
    EXPECT_EQ(seen.size(), std::size_t{processes * threadsEach});
    for (const auto& [thread, numbers] : seen) {
      EXPECT_EQ(numbers.size(), static_cast<std::size_t>(records)) << "of thread " << thread;
    }
  }

  test::TemporaryFolder folder;
  std::string path = folder / "name.log";
  test::SharedWithChild<std::atomic<int>> opened;  // by so many processes
  std::map<unsigned, std::set<int>> seen;
};

// One rotated generation is kept, so whoever rotates gives the last one a name of its own, while
// the file is still locked.
TEST_F(FileLogHandlerStressTest, LosesNoRecordWhileManyProcessesWriteAndRotate) {
  constexpr int records = 150;
  constexpr RotationPolicy policy{.maxSize = 100'000, .firstCheck = 0ns, .checkInterval = 3ms};
  const std::string rotated = folder / "name.1.log";
  onNaming = [&](const char* target) {
    static std::atomic<int> generation{0};
    const std::string kept = folder / fmt::format("kept.{}.{}", ::getpid(), ++generation);
    if (rotated == target) static_cast<void>(::link(target, kept.c_str()));
  };
  for (auto& writer : startWriters(records, 0us, policy)) EXPECT_EQ(writer.wait(), 0);
  onNaming = nullptr;

  collect(rotated);
  int generations = 0;
  for (const auto& entry : fs::directory_iterator(folder.path())) {
    if (!entry.path().filename().string().starts_with("kept.")) continue;
    ++generations;
    collect(entry.path());
  }
  collect(path);
  EXPECT_GE(generations, 1);
  expectAll(records);
}

TEST_F(FileLogHandlerStressTest, LosesNoRecordWhileTheFileIsDeletedAndRenamedAgainAndAgain) {
  constexpr int records = 60;
  auto writers = startWriters(records, 4ms, neverChecked);
  std::atomic<bool> isOver{false};
  int removed = 0;
  std::thread remover([&] {
    while (!isOver) {
      std::error_code error;
      const std::string kept = folder / fmt::format("kept.{}", removed);
      fs::create_hard_link(path, kept, error);
      if (error) {  // not there again yet
        std::this_thread::yield();
        continue;
      }
      if (++removed % 2 == 0) {
        fs::remove(path);
      } else {
        fs::rename(path, kept + ".moved");
      }
    }
  });
  for (auto& writer : writers) EXPECT_EQ(writer.wait(), 0);
  isOver = true;
  remover.join();

  for (int i = 0; i < removed; ++i) collect(folder / fmt::format("kept.{}", i));
  if (fs::exists(path)) collect(path);
  expectAll(records);
  EXPECT_GE(removed, 10);
}

TEST_F(FileLogHandlerStressTest, WaitsForTheLockOfOthersWhileThisProcessForks) {
  const auto handler = open(neverChecked);
  const UniqueFd other(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  std::latch refused(1);
  std::once_flag isTold;
  onRefusal = [&] { std::call_once(isTold, [&] { refused.count_down(); }); };
  std::atomic<bool> isWritten{false};
  std::thread writer([&] {
    handler->logWithLevel(LogLevel::info, std::chrono::system_clock::now(), "late");
    isWritten = true;
  });
  refused.wait();
  EXPECT_EQ(test::ChildProcess([] {}).wait(), 0);
  EXPECT_FALSE(isWritten);
  EXPECT_EQ(fs::file_size(path), 0U);
  ASSERT_EQ(::flock(other.get(), LOCK_UN), 0);
  writer.join();
  EXPECT_NE(test::readFile(path).find("late"), std::string::npos);
  test::inChild([&] { writeNumbered(*handler, 1, 0us); });
  EXPECT_EQ(test::readRecords(test::readFile(path), subsystem).whole.size(), 2U) << "the child's";
}

TEST_F(FileLogHandlerStressTest, WritesWithoutTheLockOfWhoNeverReleasesItButDoesNotRotate) {
  const auto log = std::make_shared<test::RecordingSystemLog>();
  constexpr RotationPolicy policy{.maxSize = 1, .firstCheck = 0ns, .checkInterval = 1h};
  test::writeFile(path, "old\n");
  const UniqueFd other(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  const auto handler = open(policy, log, 20ms);
  const auto logged = [&] { return log->entries(); };
  ASSERT_TRUE(test::eventually([&] { return logged().size() == 2; }));
  EXPECT_EQ(logged()[0].second,
            "Another process holds on to the log file. Writing without its lock.");
  EXPECT_TRUE(logged()[1].second.starts_with("Failed to rotate file")) << logged()[1].second;

  std::atomic<int> refusals{0};
  onRefusal = [&] { ++refusals; };
  for (int i = 0; i < 10; ++i) {
    handler->logWithLevel(LogLevel::info, std::chrono::system_clock::now(), "record");
  }
  EXPECT_EQ(refusals, 10) << "each asks once";
  const std::string text = test::readFile(path);
  EXPECT_TRUE(text.starts_with("old\n")) << text;
  EXPECT_EQ(test::readRecords(text.substr(4), subsystem).whole.size(), 12U);
  EXPECT_FALSE(fs::exists(folder / "name.1.log"));
}

TEST_F(FileLogHandlerStressTest, EmptiesNoFileThatIsMovedAwayBeforeItIsCopied) {
  rotate("Reopened the log file on removal", [&] {
    EXPECT_EQ(::link(path.c_str(), (folder / "moved").c_str()), 0);
    EXPECT_EQ(::unlink(path.c_str()), 0);
  });
  EXPECT_TRUE(test::readFile(folder / "moved").starts_with("old\n"));
}

TEST_F(FileLogHandlerStressTest, RotatesWhatOthersWroteWithoutTheLockMeanwhile) {
  const auto other = open(neverChecked, nullptr, 0ns);
  rotate("Log file has been rotated",
         [&] { other->logWithLevel(LogLevel::info, std::chrono::system_clock::now(), "late"); });
  const std::string text = test::readFile(folder / "name.1.log");
  EXPECT_TRUE(text.starts_with("old\n") && text.ends_with("] late\n")) << text;
}

}  // namespace
}  // namespace velum
