#include "Velum/Logger/FileLogManager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "Velum/Logger/LogManager.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/LogSearch.h"
#include "Velum/Logger/LogSplitter.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Errors.h"
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
  live(a + b + a);
  EXPECT_EQ(whole(2 * size), b + a);

  // A piece whose first megabyte holds no separator begins where it begins.
  const std::string text(3'000'000, 'x');
  live(a + text + b);
  EXPECT_EQ(whole(2'000'000).size(), 2'000'000U);
  EXPECT_EQ(whole(size + 1000), b);
}

TEST_F(FileLogManagerTest, ReportsALogThatIsNotThereAndLeavesNothing) {
  const SystemError noLog = errorOf([&] { whole(); });
  EXPECT_EQ(noLog.code(), ENOENT);
  EXPECT_THAT(noLog.message(), StartsWith("saveWholeLog(in:maxSize:): open (" + log_));
  EXPECT_THROW(save({}), SystemError);
  EXPECT_THAT(leftovers(), IsEmpty());
  EXPECT_THAT(errorOf([&] { FileLogManager(log_).saveWholeLog(folder_ / "missing"); }).message(),
              StartsWith("saveWholeLog(in:maxSize:): Failed to create temporary folder '"));
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
                  std::pair(std::string("_._.._etc_evil-d788a50e"), slash),
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
      3U);
  EXPECT_THAT(leftovers(), IsEmpty());
}

// More files than may be open, and more text than is gathered at once, in ever changing order.
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
  inChild([&] {
    const rlimit few{32, 32};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_TRUE(save({.startDate = noon, .endDate = {}, .maxSize = {}}) == expected);
  });
}

// A log as a machine with a wayward clock writes it, and what is known about it.
struct RandomLog {
  struct Written {
    LogDate date;
    std::size_t begin;
    std::size_t end;
  };
  std::string content;
  std::vector<Written> records;

  struct Kind {
    bool isProbed;                    ///< else looked through as a whole
    std::optional<std::size_t> held;  ///< the clock is set anew after that many bytes at least
    std::chrono::seconds jitter{0};
    std::chrono::minutes start{-720};  ///< from noon
    std::size_t late = 0;              ///< for that many bytes the clock is ten days late
    bool isExact() const { return !held && start < 0min; }
  };

  RandomLog(std::mt19937& random, std::size_t size, const Kind& kind) {
    const auto below = [&random](std::int64_t end) {
      return static_cast<std::int64_t>(random()) % end;
    };
    LogDate clock = noon + kind.start + (kind.late > 0 ? 240h : 0h);
    std::size_t late = kind.late;
    for (std::size_t set = 0; content.size() < size;) {
      if (late > 0 && content.size() >= late) {
        clock -= 240h;
        late = 0;
      }
      if (kind.held && content.size() >= set + *kind.held && below(20) == 0) {
        constexpr std::array<std::int64_t, 5> steps{40, 600, 8000, 90'000, 3'000'000};
        const std::int64_t most = steps.at(static_cast<std::size_t>(below(5)));
        clock += std::chrono::seconds(below(2 * most) - most);
        set = content.size();
      }
      clock += below(150) == 0 ? 25min : std::chrono::milliseconds(below(12'000));
      const LogDate date = clock - std::chrono::seconds(below(kind.jitter.count() + 1));
      std::string text(static_cast<std::size_t>(below(300)), 'x');
      if (below(10) == 0) text += "\x1E 2026-03-10 \x1E";
      if (below(500) == 0) text.append(kind.held ? 3000 : 90'000, 'y');
      const std::size_t begin = content.size();
      content += record(date, app, text);
      records.push_back({date, begin, content.size()});
    }
  }

  /// From the first to the last record of the range, in whole seconds.
  LogRange range(std::optional<LogDate> lower, std::optional<LogDate> upper) const {
    LogRange result;
    for (const Written& one : records) {
      const LogDate second = std::chrono::floor<std::chrono::seconds>(one.date);
      if ((lower && second < *lower) || (upper && second > *upper)) continue;
      if (result.isEmpty()) result.begin = static_cast<std::int64_t>(one.begin);
      result.end = static_cast<std::int64_t>(one.end);
    }
    return result;
  }
};

// Looked through as a whole or by probes: nothing of the range is lost, and in order it is exact.
TEST_F(FileLogManagerTest, FindsEveryRecordOfTheRangeWhateverTheClockDid) {
  // The hour before noon + 2 h comes twice; the test's process has the zone to itself.
  ::setenv("TZ", "CET-1CEST,M1.1.1,M3.2.2/16", 1);
  ::tzset();
  std::mt19937 random(11);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same logs each time
  constexpr std::size_t noticed = 2 * LogSearch::probeSpacing;
  const std::array<RandomLog::Kind, 6> kinds{
      {{.isProbed = false, .held = {}},
       {.isProbed = true, .held = {}, .jitter = LogSearch::jitter},
       {.isProbed = false, .held = {}, .start = 90min},
       {.isProbed = false, .held = 0},
       {.isProbed = true, .held = noticed},
       {.isProbed = true, .held = 0, .late = noticed}}};
  for (std::size_t round = 0; round < 120; ++round) {
    const RandomLog::Kind& kind = kinds.at(round % kinds.size());
    const RandomLog log(random, 400'000, kind);
    live(log.content);
    LogReader reader(log_, "test");
    for (int query = 0; query < 12; ++query) {
      const auto moment = [&]() -> std::optional<LogDate> {
        if (random() % 5 == 0) return std::nullopt;
        const LogDate date = log.records[random() % log.records.size()].date;
        const int shift = random() % 2 == 0 ? 0 : static_cast<int>(random() % 7200) - 3600;
        return std::chrono::floor<std::chrono::seconds>(date) + std::chrono::seconds(shift);
      };
      auto lower = moment();
      auto upper = random() % 2 == 0 && lower
                       ? std::optional(*lower + std::chrono::minutes(random() % 60))
                       : moment();
      if (lower && upper && *upper < *lower) std::swap(lower, upper);
      const LogRange expected = log.range(lower, upper);
      const LogRange found =
          LogSearch(reader, kind.isProbed ? 0 : LogSearch::wholeSize).range(lower, upper);
      const auto place = fmt::format("round {} query {}: {}..{} for {}..{}", round, query,
                                     found.begin, found.end, expected.begin, expected.end);
      if (expected.isEmpty()) {
        EXPECT_TRUE(!kind.isExact() || found.isEmpty()) << place;
        continue;
      }
      EXPECT_TRUE(found.begin <= expected.begin && found.end >= expected.end) << place;
      if (kind.isExact() && kind.jitter == 0s) {
        EXPECT_TRUE(found.begin == expected.begin || !lower) << place;
        EXPECT_TRUE(found.end == expected.end || !upper) << place;
      }
    }
  }
}

// Two files, a record a second: what is read, and that one more second on both sides is saved.
TEST_F(FileLogManagerTest, ReadsLittleMoreThanTheRangeOfALargeLog) {
  const auto at = [](int second) {
    return record(noon - 4h + std::chrono::seconds(second) + 500ms, app, std::string(1000, 'x'));
  };
  std::string text;
  for (int second = 0; second < 5'000; ++second) text += at(second);
  rotated(text);
  live(at(5'000) + at(5'001) + at(5'002));
  const LogDate last = noon - 4h + 5'000s;
  EXPECT_EQ(save({.startDate = last, .endDate = last, .maxSize = {}}).at(app),
            at(4'999) + at(5'000) + at(5'001));
  EXPECT_THAT(save({.startDate = last, .endDate = last - 9s, .maxSize = {}}), IsEmpty());
  EXPECT_THAT(save({.startDate = last + 9s, .endDate = LogDate::max(), .maxSize = {}}), IsEmpty());

  // A record that begins before the end of what is read first, and has its date behind it.
  const std::size_t fill = 65'536 - record(noon, app, "").size();
  const std::size_t fillOfSplit = 262'144 - record(noon, tool, "").size();
  for (const std::size_t before : {1U, 19U}) {
    const std::string cut = record(noon + 1h, app, "cut");
    live(record(noon, app, std::string(fill - before, 'x')) + cut);
    EXPECT_EQ(save({.startDate = noon + 1h, .endDate = {}, .maxSize = {}}).at(app), cut);
    live(record(noon, tool, std::string(fillOfSplit - before, 'x')) + cut);
    EXPECT_TRUE(save({}).at(app).ends_with(cut));  // behind the rotated file's
  }

  LogReader reader(folder_ / "name.1.log", "test");
  const LogRange range = LogSearch(reader, 0).range(last - 2'000s, last - 1'990s);
  EXPECT_EQ(range.end - range.begin, static_cast<std::int64_t>(11 * at(0).size()));
  EXPECT_LT(reader.bytesRead(), reader.size() / 5);
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
  FileLogManager(log_).resetLog();  // without a rotated file
  EXPECT_THAT(readFile(log_), testing::EndsWith("reset\n"));
}

TEST_F(FileLogManagerTest, NeverReplacesAFileOfTheLog) {
  const std::string before = record(noon, "name", "x") + record(noon, "name.1", "y");
  live(before);
  fs::create_directory_symlink(".", folder_ / "here");
  fs::create_hard_link(log_, out_ + "/name.log");
  for (const std::string& place : {folder_.path(), folder_ / "here", out_}) {
    for (const auto& selector :
         {LogSubsystemSelector::whole(), LogSubsystemSelector::single("name"),
          LogSubsystemSelector::single("name.1")}) {
      if (place == out_ && selector.admits("name.1") && !selector.admits("name")) continue;
      const LogSavingOpts opts{.startDate = {}, .endDate = {}, .maxSize = 9};
      const auto error = errorOf([&] { FileLogManager(log_).saveLogs(selector, place, opts); });
      EXPECT_EQ(error.code(), EEXIST) << place;
      EXPECT_THAT(error.message(), testing::HasSubstr("is a file of the log itself"));
      EXPECT_EQ(readFile(log_), before);
    }
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_.path()), fs::directory_iterator()), 3);
  EXPECT_THAT(leftovers(), IsEmpty());
}

// The rotated file by a link, as where logs lie on another disk.
TEST_F(FileLogManagerTest, LetsNobodyReadWhoMayNotReadTheLog) {
  const std::string older = record(noon - 1h, app, "older");
  live(record(noon, app, "new"));
  writeFile(folder_ / "disk/old", older);
  fs::create_symlink("disk/old", folder_ / "name.1.log");
  using fs::perms;
  constexpr perms secret = perms::owner_read | perms::owner_write;
  for (const std::string file : {"name.log", "disk/old"}) {
    fs::permissions(folder_ / file, secret);
    for (const std::int64_t size : {1'000, 100}) {
      EXPECT_THAT(save({.startDate = noon - 2h, .endDate = {}, .maxSize = size}).at(app),
                  StartsWith(size == 1'000 ? older : record(noon, app, "new")));
      EXPECT_EQ(fs::status(out_ + "/" + app + ".log").permissions(), secret) << file << size;
      whole(size);
      EXPECT_EQ(fs::status(out_ + "/name.log").permissions(), secret) << file << size;
    }
    fs::permissions(folder_ / file, secret | perms::group_read | perms::others_read);
  }
}

TEST_F(FileLogManagerTest, ResetsAllOfTheLogOrNothing) {
  live(record(noon, app, "old"));
  fs::create_directory(folder_ / "name.1.log");
  EXPECT_THROW(FileLogManager(log_).resetLog(), SystemError);
  EXPECT_EQ(readFile(log_), record(noon, app, "old"));
  EXPECT_THROW(save({}), SystemError) << "an unreadable rotated file is not a missing one";
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
