// The system log, for records and as an application's output, with a real journal, which runs in
// mounts of its own.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <sstream>
#include <vector>

#include "Velum/Logger/Handlers/OSLogHandler.h"
#include "Velum/Platform/Linux/Workspace/OpenAttempt.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HungJournal.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/Processes.h"
#include "tests/support/SecretService.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr const char* daemonPath = "/lib/systemd/systemd-journald";
constexpr const char* socketPath = test::journalSocketPath;

// The fields asked for of the records of `identifier`, in the order they were written.
std::vector<std::string> journalLines(const std::string& identifier, const std::string& field,
                                      const std::string& output) {
  test::exitStatus(
      test::startShell("exec journalctl -a -q -D /run/log/journal -o cat --output-fields=" + field +
                       " SYSLOG_IDENTIFIER=" + identifier + " >'" + output + "' 2>&1"));
  std::vector<std::string> lines;
  std::istringstream text(test::readFile(output));
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

TEST(SystemLog, WritesRecordsToTheJournalWithPriorityIdentifierAndCategory) {
  if (!fs::exists(daemonPath)) GTEST_SKIP() << "no journal is installed";
  if (::geteuid() != 0) GTEST_SKIP() << "the journal runs as root only";
  const test::TemporaryFolder folder;
  test::inChild([&] {
    if (!test::enterPrivateMounts()) GTEST_SKIP() << "no private mounts here";
    test::mountMemory("/run", "size=256m");
    fs::create_directories("/run/systemd/journal");
    fs::create_directories("/run/log/journal");
    // It must neither read the machine's kernel log nor switch on its audit.
    test::mountMemory("/etc/systemd", "size=1m");
    test::writeFile("/etc/systemd/journald.conf",
                    "[Journal]\nStorage=volatile\nAudit=no\nReadKMsg=no\nForwardToWall=no\n");
    std::optional<test::Daemon> daemon(std::in_place, std::vector<std::string>{daemonPath});
    ASSERT_TRUE(test::eventually([] { return fs::exists(socketPath); }));

    OSLogHandler byDefault("com.example.vpn");
    OSLogHandler other("com.example.vpn", "other");
    byDefault.logWithLevel(LogLevel::info, {}, "100% %s\nof two lines");
    byDefault.logWithLevel(LogLevel::warning, {}, "warning");
    other.logWithLevel(LogLevel::error, {}, "error");

    const std::string output = folder / "output";
    const auto lines = [&](const char* field) {
      return journalLines("com.example.vpn", field, output);
    };
    ASSERT_TRUE(test::eventually([&] { return lines("MESSAGE").size() == 4; }));
    using Lines = std::vector<std::string>;
    EXPECT_EQ(lines("MESSAGE"), (Lines{"100% %s", "of two lines", "warning", "error"}));
    EXPECT_EQ(lines("PRIORITY"), (Lines{"5", "3", "2"}));
    EXPECT_EQ(lines("VELUM_CATEGORY"), (Lines{"main", "main", "other"}));
    EXPECT_EQ(lines("CODE_FILE"), Lines()) << "not the caller's place";

    Bundle bundle;
    bundle.identifier = "com.example.output\nx";
    const UniqueFd stream = SystemLogStream().take(bundle);
    ASSERT_EQ(::write(stream.get(), "<1>line\n", 8), 8);
    const auto streamed = [&](const char* field) {
      return journalLines("com.example.output", field, output);
    };
    ASSERT_TRUE(test::eventually([&] { return streamed("MESSAGE") == Lines{"<1>line"}; }));
    EXPECT_EQ(streamed("PRIORITY"), Lines{"6"});

    // The next journal gets the next record, even one that no datagram has room for.
    daemon.reset();
    fs::remove(socketPath);
    daemon.emplace(std::vector<std::string>{daemonPath});
    ASSERT_TRUE(test::eventually([] { return fs::exists(socketPath); }));
    byDefault.logWithLevel(LogLevel::info, {}, std::string(2'000'000, 'x') + "\nlast");
    EXPECT_TRUE(test::eventually([&] { return lines("MESSAGE").back() == "last"; }));
  });
}

TEST(SystemLog, WritesWarningsAndErrorsToStandardErrorWhereNoJournalTakesThem) {
  enum class Journal { missing, ended, hung };
  const test::TemporaryFolder folder;
  const std::string output = folder / "output";
  for (const auto journal : {Journal::missing, Journal::ended, Journal::hung}) {
    test::inChild([&] {
      if (!test::enterPrivateMounts()) GTEST_SKIP() << "no private mounts here";
      test::mountMemory("/run", "size=1m");
      UniqueFd hung;
      // What a stopped journal leaves behind is no journal either.
      if (journal == Journal::ended) test::writeFile(socketPath, "");
      if (journal == Journal::hung) hung = test::hungJournal();
      OSLogHandler handler("com.example.vpn");
      const UniqueFd standardError(::dup(STDERR_FILENO));
      const UniqueFd file(::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      ::dup2(file.get(), STDERR_FILENO);
      handler.logWithLevel(LogLevel::info, {}, "info");
      handler.logWithLevel(LogLevel::warning, {}, "warning %s");
      handler.logWithLevel(LogLevel::error, {}, "error");
      ::dup2(standardError.get(), STDERR_FILENO);
      const std::string text = test::readFile(output);
      EXPECT_EQ(text.find("info"), std::string::npos) << text;
      EXPECT_NE(text.find("] warning %s\n"), std::string::npos) << text;
      EXPECT_TRUE(text.ends_with("] error\n")) << text;
    });
    if (::testing::Test::IsSkipped() || ::testing::Test::HasFailure()) return;
  }
}

TEST(SystemLog, HoldsNoApplicationUpThatIsToWriteIntoIt) {
  test::inChild([] {
    if (!test::enterPrivateMounts()) GTEST_SKIP() << "no private mounts here";
    test::mountMemory("/run", "size=1m");
    SystemLogStream log;
    const UniqueFd journal = test::journalWithRoomForOneStream();
    const UniqueFd stream = log.take({});
    EXPECT_EQ(::fcntl(stream.get(), F_GETFL) & O_NONBLOCK, 0) << "programs don't expect that";
    EXPECT_FALSE(log.take({}));
  });
}

}  // namespace
}  // namespace velum
