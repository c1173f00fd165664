#include "Velum/Logger/FileLogManager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/LogManager.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/LogSearch.h"
#include "Velum/Logger/LogSplitter.h"
#include "Velum/SystemError.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr const char* app = "com.quillon.mac.vpn";
constexpr const char* tool = "com.quillon.mac.vpn.tool";

// A moment well away from any change of the clock.
const LogDate noon = std::chrono::sys_days(std::chrono::year(2026) / 3 / 10) + 12h;

std::string record(LogDate date, std::string_view subsystem, std::string_view text) {
  return makeRecordPrefix(date, subsystem).append(text).append("\n");
}

class FileLogManagerTest : public testing::Test {
 protected:
  FileLogManagerTest() { fs::create_directory(out_); }

  void live(std::string_view content) const { writeFile(log_, content); }
  void rotated(std::string_view content) const { writeFile(folder_ / "name.1.log", content); }

  std::string whole(std::optional<std::int64_t> maxSize = std::nullopt) const {
    const std::string path = FileLogManager(log_).saveWholeLog(out_, maxSize);
    EXPECT_EQ(path, out_ + "/name.log");
    return readFile(path);
  }

  /// Saves and returns the files' contents by name, without ".log".
  std::map<std::string, std::string> save(
      const LogSavingOpts& opts,
      const LogSubsystemSelector& selector = LogSubsystemSelector::all()) const {
    std::map<std::string, std::string> contents;
    for (const std::string& path : FileLogManager(log_).saveLogs(selector, out_, opts)) {
      EXPECT_EQ(fs::path(path).parent_path(), out_);
      contents[fs::path(path).stem().string()] = readFile(path);
    }
    return contents;
  }

  std::vector<std::string> leftovers() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(out_)) {
      if (entry.is_directory()) names.push_back(entry.path().filename().string());
    }
    return names;
  }

  TemporaryFolder folder_;
  std::string log_ = folder_ / "name.log";
  std::string out_ = folder_ / "out";
};

TEST_F(FileLogManagerTest, JoinsTheWholeLogByteForByte) {
  const std::string odd("text \0 without prefix \xFF\xFE\n", 25);
  live(record(noon, app, "new") + odd);
  EXPECT_EQ(whole(), record(noon, app, "new") + odd);  // no rotated file
  rotated(odd + record(noon - 1h, app, "old"));
  EXPECT_EQ(whole(), odd + record(noon - 1h, app, "old") + record(noon, app, "new") + odd);
  live("");
  EXPECT_EQ(whole(), odd + record(noon - 1h, app, "old"));
  EXPECT_THAT(leftovers(), IsEmpty());
}

TEST_F(FileLogManagerTest, CutsTheWholeLogAtARecord) {
  const std::string a = record(noon, app, "aaaa");
  const std::string b = record(noon, app, "bbbb");
  const auto size = static_cast<std::int64_t>(a.size());
  rotated(a + b);
  live(a + b);
  EXPECT_EQ(whole(4 * size), a + b + a + b);
  EXPECT_EQ(whole(4 * size - 1), b + a + b);
  EXPECT_EQ(whole(3 * size), b + a + b);
  EXPECT_EQ(whole(2 * size + 1), "\n" + a + b);  // no record begins in the piece: taken as it is
  EXPECT_EQ(whole(2 * size), a + b);
  EXPECT_EQ(whole(2 * size - 1), b);
  EXPECT_EQ(whole(0), "");

  // A piece whose first megabyte holds no separator begins where it begins.
  const std::string text(3'000'000, 'x');
  live(a + text + b);
  EXPECT_EQ(whole(2'000'000).size(), 2'000'000U);
  EXPECT_EQ(whole(size + 1000), b);
}

TEST_F(FileLogManagerTest, ReportsALogThatIsNotThereAndLeavesNothing) {
  try {
    whole();
    FAIL();
  } catch (const SystemError& error) {
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_THAT(error.message(), StartsWith("saveWholeLog(in:maxSize:): open (" + log_));
  }
  EXPECT_THROW(save({}), SystemError);
  EXPECT_THAT(leftovers(), IsEmpty());
  try {
    FileLogManager(log_).saveWholeLog(folder_ / "missing");
    FAIL();
  } catch (const SystemError& error) {
    EXPECT_THAT(error.message(),
                StartsWith("saveWholeLog(in:maxSize:): Failed to create temporary folder '"));
  }
}

TEST_F(FileLogManagerTest, SplitsBySubsystemAndLosesNoByte) {
  const std::string strange = record(noon, app, std::string("one\ntwo \x1E three\0 \xFF", 18));
  const std::string huge = record(noon, tool, std::string(2'500'000, 'h') + '\x1E' + "tail");
  const std::string slash = record(noon, "../../etc/evil", "x");
  const std::string broken = std::string("\x1E") + "2026-03-10 12:00:00.000 12:1 no bracket\n";
  rotated("no prefix\n" + record(noon - 1s, app, "first") + slash);
  live(strange + huge + broken + record(noon, app, "last") + "no prefix\n");

  EXPECT_THAT(save({}),
              UnorderedElementsAre(
                  std::pair(std::string(app), record(noon - 1s, app, "first") + strange +
                                                  record(noon, app, "last") + "no prefix\n"),
                  std::pair(std::string(tool), huge)));
  const auto size = static_cast<std::int64_t>((record(noon, app, "last") + "no prefix\n").size());
  EXPECT_EQ(
      save({.startDate = {}, .endDate = {}, .maxSize = size}, LogSubsystemSelector::single(app))
          .at(app),
      record(noon, app, "last") + "no prefix\n");
  EXPECT_THAT(save({}, LogSubsystemSelector::some({tool, "unknown"})),
              ElementsAre(std::pair(std::string(tool), huge)));
  // A date makes one file per subsystem of the whole log too.
  EXPECT_EQ(
      save({.startDate = noon, .endDate = {}, .maxSize = {}}, LogSubsystemSelector::whole()).size(),
      2U);
  EXPECT_THAT(leftovers(), IsEmpty());
}

// More files than are kept open, and more text than is gathered at once, in ever changing order.
TEST_F(FileLogManagerTest, SplitsIntoHundredsOfFiles) {
  std::map<std::string, std::string> expected;
  std::string content;
  for (int number = 0; number < 6000; ++number) {
    const std::string name = fmt::format("part{}", number * 7 % (number % 3 == 0 ? 150 : 11));
    const std::string text =
        record(noon, name, fmt::format("{} {}", number, std::string(999, 'x')));
    content += text;
    expected[name] += text;
  }
  live(content);
  EXPECT_TRUE(save({.startDate = noon, .endDate = {}, .maxSize = {}}) == expected);
}

// A log over two files, large enough for bisection: one record a second.
class DatedLogTest : public FileLogManagerTest {
 protected:
  static constexpr int seconds = 40'000;

  DatedLogTest() {
    std::string older;
    std::string newer;
    for (int second = 0; second < seconds; ++second) {
      (second < seconds / 2 ? older : newer) += at(second);
    }
    rotated(older);
    live(newer);
  }

  static LogDate date(int second) { return noon + std::chrono::seconds(second); }
  static std::string at(int second) {
    return record(date(second) + 500ms, app, fmt::format("second {} {:070}", second, 0));
  }
  static std::string between(int first, int last) {
    std::string text;
    for (int second = first; second <= last; ++second) text += at(second);
    return text;
  }
  std::string range(int first, int last) const {
    const auto saved = save({.startDate = date(first), .endDate = date(last), .maxSize = {}});
    return saved.empty() ? "" : saved.begin()->second;
  }
};

TEST_F(DatedLogTest, TakesWhatLiesBetweenTheDates) {
  EXPECT_EQ(range(100, 200), between(99, 201));
  EXPECT_EQ(range(19'990, 20'010), between(19'989, 20'011));  // across the two files
  EXPECT_EQ(range(39'990, 50'000), between(39'989, 39'999));
  EXPECT_EQ(range(-100, 3), between(0, 4));
  EXPECT_EQ(range(-100, 50'000), between(0, 39'999));
  EXPECT_THAT(save({.startDate = date(-100), .endDate = date(-10), .maxSize = {}}), IsEmpty());
  EXPECT_THAT(save({.startDate = date(50'000), .endDate = {}, .maxSize = {}}), IsEmpty());
  EXPECT_THAT(save({.startDate = date(300), .endDate = date(200), .maxSize = {}}), IsEmpty());
  EXPECT_EQ(save({.startDate = date(39'998), .endDate = {}, .maxSize = {}}).at(app),
            between(39'997, 39'999));
  EXPECT_EQ(save({.startDate = {}, .endDate = date(1), .maxSize = {}}).at(app), between(0, 2));
}

TEST_F(DatedLogTest, ReadsLittleMoreThanTheRange) {
  LogReader reader(folder_ / "name.1.log", "test");
  const LogRange range = LogSearch(reader).range(date(10'000), date(10'010));
  EXPECT_EQ(range.end - range.begin, static_cast<std::int64_t>(between(10'000, 10'010).size()));
  // Two bisections and two scans of the hour that the clock may have been set back.
  EXPECT_LT(reader.bytesRead(), 8 * 1'048'576);
}

TEST_F(FileLogManagerTest, KeepsTheHourThatComesTwice) {
  // Local time goes from 02:59:59 back to 02:00:00; the test's process has the zone to itself.
  ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  ::tzset();
  const LogDate change = std::chrono::sys_days(std::chrono::year(2026) / 10 / 25) + 1h;
  std::string text;
  std::string wanted;
  for (int minute = -180; minute < 180; ++minute) {
    for (int i = 0; i < 60; ++i) {
      const std::string one = record(change + std::chrono::minutes(minute), app,
                                     fmt::format("minute {} {:0200}", minute, i));
      text += one;
      if (minute >= -30 && minute <= 30) wanted += one;
    }
  }
  live(text);
  const auto saved = save({.startDate = change - 30min, .endDate = change + 30min, .maxSize = {}});
  EXPECT_NE(saved.at(app).find(wanted), std::string::npos);
  EXPECT_LT(saved.at(app).size(), text.size());
}

TEST_F(FileLogManagerTest, TreatsALogWithoutRecordsAsHavingNone) {
  for (const std::string& content : {std::string(), std::string("plain\n"), std::string("\x1E"),
                                     std::string("\x1E") + "2026-03-10 12:00"}) {
    live(content);
    EXPECT_THAT(save({}), IsEmpty()) << content;
    EXPECT_THAT(save({.startDate = noon, .endDate = noon, .maxSize = {}}), IsEmpty()) << content;
    EXPECT_EQ(whole(), content);
  }
}

TEST_F(FileLogManagerTest, SavesWholeRecordsWhileOthersWriteAndRotate) {
  RotationPolicy policy;
  policy.maxSize = 200'000;
  policy.firstCheck = policy.checkInterval = 1ms;
  auto handler = FileLogHandler::create(
      app, log_, true, policy, {&FileEvents::shared(), std::make_shared<RecordingSystemLog>()});
  std::atomic<bool> isOver = false;
  std::thread writer([&] {
    for (int i = 0; !isOver; ++i) {
      handler->logWithLevel(LogLevel::info, std::chrono::system_clock::now(),
                            fmt::format("number {} {:0200}", i, 0));
      // File locks are not fair: a thread that only logs would keep everybody else waiting.
      std::this_thread::sleep_for(50us);
    }
  });
  for (int round = 0; round < 20; ++round) {
    int expected = -1;
    const std::string text = whole();
    for (std::size_t at = text.find("number "); at != std::string::npos;
         at = text.find("number ", at + 1)) {
      const int number = std::stoi(text.substr(at + 7));
      EXPECT_TRUE(expected < 0 || number == expected) << "a record is missing";
      expected = number + 1;
    }
    EXPECT_TRUE(text.empty() || text.back() == '\n');
  }
  isOver = true;
  writer.join();
}

TEST_F(FileLogManagerTest, ResetsToOneRecordUnderItsWriters) {
  live(record(noon, app, "old"));
  rotated(record(noon, app, "older"));
  const UniqueFd writer(::open(log_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  FileLogManager(log_).resetLog();
  EXPECT_FALSE(fs::exists(folder_ / "name.1.log"));
  EXPECT_THAT(
      readFile(log_),
      testing::MatchesRegex("\x1E.* \\[Velum\\] I: \\(FileLogManager\\) Log has been reset\n"));
  ASSERT_EQ(::write(writer.get(), "next", 4), 4);
  EXPECT_THAT(readFile(log_), testing::EndsWith("reset\nnext"));
}

TEST_F(FileLogManagerTest, IsFrontedByTheSharedManagerOnceItHasALog) {
  LogManager manager;
  EXPECT_THAT(manager.saveLogs(LogSubsystemSelector::whole(), out_, {}), IsEmpty());
  live(record(noon, app, "x"));
  manager.setLogPath(log_);
  EXPECT_THAT(manager.saveLogs(LogSubsystemSelector::whole(), out_, {}),
              ElementsAre(out_ + "/name.log"));
}

}  // namespace
}  // namespace velum::test
