#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <regex>

#include "Velum/Logger/Handlers/NSLogHandler.h"
#include "Velum/Logger/Handlers/OSLogHandler.h"
#include "Velum/Logger/Handlers/StdoutLogHandler.h"
#include "Velum/Platform/Thread.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

constexpr const char* tricky = "I: (main) 100% %s %@ %n";

// What `body` writes to `descriptor`, in a process of its own.
std::string writtenTo(int descriptor, const std::function<void()>& body) {
  const test::TemporaryFolder folder;
  test::inChild([&] {
    ::dup2(::open((folder / "written").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), descriptor);
    body();
  });
  return test::readFile(folder / "written");
}

TEST(StdoutLogHandler, PrintsTheTextAndALineFeedAtOnce) {
  EXPECT_EQ(writtenTo(STDOUT_FILENO,
                      [] {
                        StdoutLogHandler handler;
                        handler.logWithLevel(LogLevel::info, {}, tricky);
                        handler.logWithLevel(LogLevel::error, {}, "");
                        handler.logWithLevel(LogLevel::error, {}, "two\nlines");
                        ::_exit(0);  // nothing may be left in a buffer
                      }),
            std::string(tricky) + "\n\ntwo\nlines\n");
}

TEST(NSLogHandler, WritesTheTextBehindDateProgramAndIds) {
  const std::string line =
      writtenTo(STDERR_FILENO, [] { NSLogHandler().logWithLevel(LogLevel::info, {}, tricky); });
  EXPECT_TRUE(std::regex_match(
      line, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} HandlersTests\[\d+:[0-9a-f]+\] )"
                       R"(I: \(main\) 100% %s %@ %n\n)")))
      << line;
}

TEST(OSLogHandler, ShiftsLevelsAndTakesTheTextAsItIs) {
  const auto log = std::make_shared<test::RecordingSystemLog>();
  OSLogHandler handler(log);
  for (int raw = 0; raw <= 4; ++raw) handler.logWithLevel(*logLevel(raw), {}, tricky);
  using Type = SystemLog::Type;
  std::vector<Type> types;
  for (const auto& [type, text] : log->entries()) {
    types.push_back(type);
    EXPECT_EQ(text, tricky);
  }
  EXPECT_EQ(types,
            (std::vector{Type::normal, Type::normal, Type::normal, Type::error, Type::fault}));
}

}  // namespace
}  // namespace velum
