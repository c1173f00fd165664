#include "Velum/Logger/Handlers/FileLogHandler.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <future>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/FileLock.h"
#include "Velum/Platform/Thread.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/LogRecords.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using namespace std::chrono_literals;
using Type = SystemLog::Type;
namespace fs = std::filesystem;

constexpr const char* subsystem = "com.example.vpn";
constexpr const char* reopened = "Reopened the log file on removal";
constexpr const char* rotated = "Log file has been rotated";
constexpr const char* reopenedLine = "I: (FileLogHandler) Reopened the log file on removal";

LogDate now() {
  return std::chrono::system_clock::now();
}

constexpr RotationPolicy neverChecked{.firstCheck = 1h};
constexpr RotationPolicy checkedAtOnce{.firstCheck = 0ns, .checkInterval = 1h};
constexpr RotationPolicy checkedOften{.firstCheck = 0ns, .checkInterval = 5ms};

class FileLogHandlerTest : public ::testing::Test {
 protected:
  std::shared_ptr<FileLogHandler> open(const std::string& file, RotationPolicy policy,
                                       bool addPrefix = true) const {
    return FileLogHandler::create(subsystem, file, addPrefix, policy,
                                  {&FileEvents::shared(), systemLog});
  }
  static void write(FileLogHandler& handler, std::string_view text) {
    handler.logWithLevel(LogLevel::info, now(), text);
  }
  static std::vector<test::ReadRecord> records(const std::string& file) {
    auto read = test::readRecords(test::readFile(file), subsystem);
    EXPECT_TRUE(read.broken.empty()) << file << ": " << read.broken.front();
    return read.whole;
  }
  static std::string text(const std::string& file, std::size_t index) {
    const auto all = records(file);
    return index < all.size() ? all[index].text : "(no such record)";
  }

  test::TemporaryFolder folder;
  std::string path = folder / "name.log";
  std::string rotatedPath = folder / "name.1.log";
  std::shared_ptr<test::RecordingSystemLog> systemLog =
      std::make_shared<test::RecordingSystemLog>();
};

TEST_F(FileLogHandlerTest, WritesEachRecordByteForByte) {
  const auto handler = open(path, neverChecked);
  const LogDate date = std::chrono::sys_days{std::chrono::year(2026) / 11 / 16} + 7h + 5ms;
  const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  ::localtime_r(&seconds, &local);
  std::string written(19, ' ');
  ASSERT_EQ(std::strftime(written.data(), 20, "%Y-%m-%d %H:%M:%S", &local), 19U);

  handler->logWithLevel(LogLevel::info, date, "I: (main) first\nsecond line");
  handler->logWithLevel(LogLevel::error, date + 994ms + 999us, "x");

  const std::string ids =
      fmt::format(" {:5}:{:<8x} [{}] ", ::getpid(), currentThreadId(), subsystem);
  EXPECT_EQ(test::readFile(path), "\x1E" + written + ".005" + ids +
                                      "I: (main) first\nsecond line\n\x1E" + written + ".999" +
                                      ids + "x\n");
  EXPECT_EQ(test::modeOf(path) & ~0644, 0);
  handler->logWithLevel(LogLevel::info, LogDate(-1ms), "x");
  EXPECT_NE(test::readFile(path).find(":59.999 "), std::string::npos) << "before the epoch";
}

TEST_F(FileLogHandlerTest, WritesNoEmptyMessageNoSecretAndNothingThatIsNotUtf8) {
  const auto handler = open(path, neverChecked, false);
  write(*handler, "");
  write(*handler, "broken \xFF");
  write(*handler, std::string_view("a\0b", 3));
  write(*handler, "Gr\xC3\xBC\xC3\x9F\nCookie: abc\nAccept: y\nset-COOKIE: z");
  EXPECT_EQ(test::readFile(path),
            std::string("a\0b\n", 4) +
                "Gr\xC3\xBC\xC3\x9F\nCookie: stripped\nAccept: y\nset-COOKIE: stripped\n");
}

TEST_F(FileLogHandlerTest, LeavesThePrefixOutOfRecordsButNotOfInternalLines) {
  const auto handler = open(path, checkedAtOnce, false);
  ASSERT_TRUE(systemLog->waitFor("No need rotating the log file. File size is 0 bytes."));
  write(*handler, "plain");
  handler->logWithLevel(LogLevel::info, now(), true, "prefixed");
  handler->logWithLevel(LogLevel::info, now(), false, "plain again");
  const std::string content = test::readFile(path);
  EXPECT_EQ(content.front(), '\x1E');
  EXPECT_NE(
      content.find("I: (FileLogHandler) No need rotating the log file. File size is 0 bytes.\n"
                   "plain\n\x1E"),
      std::string::npos)
      << content;
  EXPECT_TRUE(content.ends_with("] prefixed\nplain again\n")) << content;
}

TEST_F(FileLogHandlerTest, DecidesBySizeAndAgeWhetherToRotate) {
  const std::string tooOld = "File too old. It needs to be rotated.";
  const std::string noNeed = "No need rotating the log file. File size is ";
  struct Case {
    std::int64_t size;
    std::int64_t days;
    std::string line;
    bool isRotated;
  };
  for (const Case& given :
       {Case{
            52'428'800, 0,
            "Log file size is 52428800 bytes, which is more than 52428800. It needs to be rotated.",
            true},
        Case{52'428'799, 3, tooOld, true}, Case{52'428'799, 1, noNeed + "52428799 bytes.", false},
        Case{2'097'152, 2, tooOld, true}, Case{2'097'151, 10, noNeed + "2097151 bytes.", false}}) {
    SCOPED_TRACE(given.line);
    fs::remove(rotatedPath);
    test::writeFile(path, "old");
    fs::resize_file(path, static_cast<std::uintmax_t>(given.size));
    timespec then{::time(nullptr) - given.days * 86400, 0};
    const std::array<timespec, 2> times{then, then};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
    systemLog = std::make_shared<test::RecordingSystemLog>();

    const auto handler = open(path, checkedAtOnce);
    ASSERT_TRUE(systemLog->waitFor(given.isRotated ? rotated : given.line));
    std::vector<test::RecordingSystemLog::Entry> expected{{Type::normal, given.line}};
    if (given.isRotated) expected.emplace_back(Type::normal, rotated);
    EXPECT_EQ(systemLog->entries(), expected);

    write(*handler, "next");  // waits for the check to be over
    EXPECT_EQ(fs::exists(rotatedPath), given.isRotated);
    const std::string checked = test::readFile(given.isRotated ? rotatedPath : path);
    EXPECT_TRUE(checked.starts_with("old"));
    EXPECT_NE(checked.find("I: (FileLogHandler) " + given.line + '\n'), std::string::npos);
    if (!given.isRotated) continue;
    EXPECT_EQ(text(path, 0), std::string("I: (FileLogHandler) ") + rotated);
    EXPECT_EQ(text(path, 1), "next");
  }
}

TEST_F(FileLogHandlerTest, ReopensAfterDeletionAndAfterRenamingWhateverOtherNameTheFileHas) {
  const auto handler = open(path, neverChecked);
  std::promise<void> isLinked;
  auto watch = FileEvents::shared().watch(path, FileEvent::link, DispatchQueue::serial("test"),
                                          [&](FileEvent) { isLinked.set_value(); });
  fs::create_hard_link(path, folder / "other");  // is no removal
  isLinked.get_future().wait();
  watch.reset();
  write(*handler, "first");
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_TRUE(systemLog->waitFor(reopened));
  write(*handler, "second");
  ASSERT_EQ(::rename(path.c_str(), (folder / "moved").c_str()), 0);
  ASSERT_TRUE(systemLog->waitFor(reopened, Type::normal, 2));
  write(*handler, "third");
  EXPECT_EQ(records(folder / "other").size(), 1U);
  EXPECT_EQ(records(folder / "moved").size(), 2U);
  EXPECT_EQ(text(path, 0), reopenedLine);
  EXPECT_EQ(text(path, 1), "third");
  EXPECT_EQ(systemLog->count(reopened), 2);
}

TEST_F(FileLogHandlerTest, FindsAtTheNextCheckThatALinkPointsElsewhere) {
  test::writeFile(folder / "a", "");
  fs::create_symlink(folder / "a", path);
  const auto handler = open(path, checkedOften);
  fs::create_symlink(folder / "b", folder / "new");
  ASSERT_EQ(::rename((folder / "new").c_str(), path.c_str()), 0);  // the file itself stays
  ASSERT_TRUE(systemLog->waitFor(reopened));
  EXPECT_EQ(text(folder / "b", 0), reopenedLine);
}

TEST_F(FileLogHandlerTest, SaysWhyAPathIsUnusableAndRecoversAtTheNextCheck) {
  UniqueFd reader;
  const std::vector<std::pair<int, std::function<void()>>> obstacles{
      {ENOENT, [&] { fs::create_symlink("missing/file", path); }},
      {EISDIR, [&] { fs::create_directory(path); }},
      {ENXIO, [&] { ::mkfifo(path.c_str(), 0600); }},
      {ENXIO, [&] {
         ::mkfifo(path.c_str(), 0600);
         reader.reset(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
       }}};
  for (const auto& [code, obstruct] : obstacles) {
    obstruct();
    systemLog = std::make_shared<test::RecordingSystemLog>();
    const auto handler = open(path, checkedOften);
    EXPECT_EQ(systemLog->entries().at(0),
              test::RecordingSystemLog::Entry(
                  Type::error, "Failed to open " + path + ": " + systemErrorText(code)));
    write(*handler, "lost");
    ASSERT_TRUE(systemLog->waitFor("Failed to rotate file " + path +
                                       ": shouldRotateLk(), fstat (-1[" + path +
                                       "]): Bad file descriptor",
                                   Type::error));
    fs::remove(path);
    fs::create_directory(folder / "missing");  // where the dangling link points
    ASSERT_TRUE(test::eventually([&] {
      write(*handler, "kept");
      return test::readFile(path).ends_with("kept\n");
    }));
    path += '.';  // another one for the next
  }
}

TEST_F(FileLogHandlerTest, TakesDescriptorZeroAsNotOpenForInternalLines) {
  test::inChild([this] {
    ::close(STDIN_FILENO);
    const auto handler = open(path, checkedAtOnce);
    ASSERT_TRUE(systemLog->waitFor("No need rotating the log file. File size is 0 bytes."));
    write(*handler, "record");
    ASSERT_EQ(records(path).size(), 1U);
    EXPECT_EQ(text(path, 0), "record");
  });
}

TEST_F(FileLogHandlerTest, TellsTheSystemLogWhileItHoldsNoLock) {
  std::atomic<FileLogHandler*> used{nullptr};
  systemLog = std::make_shared<test::RecordingSystemLog>([&](std::string_view) {
    const UniqueFd other(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(FileLock::tryFor(other.get(), test::deadline));
    used.load()->logWithLevel(LogLevel::info, now(), "from the system log");
  });
  const auto handler = open(path, neverChecked);
  used = handler.get();
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_TRUE(test::eventually([&] { return records(path).size() == 2; }));
  EXPECT_EQ(text(path, 1), "from the system log");
}

TEST_F(FileLogHandlerTest, MayGoWhileItsChecksAndEventsAreUnderWay) {
  for (int round = 0; round < 100; ++round) {
    const auto handler = open(path, checkedOften);
    ::unlink(path.c_str());
  }
  EXPECT_EQ(systemLog->count("Failed to open " + path, Type::error), 0);
}

// Storage of the thread is gone by then, but handlers and the logger live until the very end.
TEST_F(FileLogHandlerTest, WritesRecordsUntilTheVeryEndOfTheProcess) {
  static std::shared_ptr<FileLogHandler> handler;
  test::inChild([this] {
    handler = open(path, neverChecked);
    write(*handler, std::string(100, 'x'));
    std::atexit([] { write(*handler, std::string(100, 'y')); });  // NOLINT(cert-err33-c)
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
  });
  EXPECT_EQ(text(path, 1), std::string(100, 'y'));
}

}  // namespace
}  // namespace velum
