#include "Velum/Logger/Logger.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "Velum/Logger/LogRecord.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"

namespace velum {
namespace {

using namespace std::chrono_literals;

class LoggerTest : public ::testing::Test {
 protected:
  LoggerTest() { logger.setHandlers({handler}); }

  std::string logged(LogLevel level, std::string_view message, std::string_view file) {
    logger.log(
        level, [&] { return message; }, file, "f(_:)", 7);
    return handler->texts().empty() ? "" : handler->texts().back();
  }

  std::shared_ptr<test::RecordingLogHandler> handler =
      std::make_shared<test::RecordingLogHandler>();
  Logger logger;
};

TEST_F(LoggerTest, TagsRecordsByLevel) {
  logger.setLogLevel(LogLevel::verbose);
  EXPECT_EQ(logged(LogLevel::verbose, "t", "a/b/c.ext"), "V: (c: f(_:)) t");
  EXPECT_EQ(logged(LogLevel::debug, "t", "a/b/c.ext"), "D: (c: f(_:)) t");
  EXPECT_EQ(logged(LogLevel::info, "t", "a/b/c.ext"), "I: (c) t");
  EXPECT_EQ(logged(LogLevel::warning, "", "vpn_relauncher/main"), "W: (main) ");
  EXPECT_EQ(logged(LogLevel::error, "t", "a.b/c"), "E: (c: f(_:)) t");
  EXPECT_EQ(logged(LogLevel::info, "t", "a/c.x.y"), "I: (c.x) t");
  EXPECT_EQ(logged(LogLevel::info, "t", ""), "I: t");
  EXPECT_EQ(logged(LogLevel::error, "t", ""), "E: (: f(_:)) t");
}

TEST_F(LoggerTest, CallsHandlersInOrderWithOneDateTakenBeforeTheMessage) {
  struct Second final : LogHandlerProtocol {
    explicit Second(test::RecordingLogHandler& first_) : first(first_) {}
    void logWithLevel(LogLevel level, LogDate date, std::string_view text) override {
      ASSERT_EQ(first.records().size(), 1U) << "the first was not called before";
      const auto expected = first.records()[0];
      isTold = level == expected.level && date == expected.date && text == expected.text;
    }
    test::RecordingLogHandler& first;
    bool isTold = false;
  };
  const auto second = std::make_shared<Second>(*handler);
  logger.setHandlers({handler, second});
  LogDate built;
  const LogDate before = std::chrono::system_clock::now();
  const auto message = [&] {
    built = std::chrono::system_clock::now();
    return "t";
  };
  logger.log(LogLevel::warning, message, "file", "f", 1);
  ASSERT_TRUE(second->isTold);
  EXPECT_EQ(handler->records()[0].level, LogLevel::warning);
  EXPECT_LE(before, handler->records()[0].date);
  EXPECT_LE(handler->records()[0].date, built);
}

TEST_F(LoggerTest, RepairsWhatIsNotUtf8ForAllHandlers) {
  EXPECT_EQ(logged(LogLevel::info, "a\xFF\xC3\xBC", "f\xFE.x"),
            "I: (f\xEF\xBF\xBD) a\xEF\xBF\xBD\xC3\xBC");
}

TEST_F(LoggerTest, WritesTheSameRecordForRawLevelsAndStopsAtUnknownOnes) {
  logger.log(
      LogLevel::error, [] { return "t"; }, "a/b.c", "f", 1);
  logger.objcLog(4, "t", "a/b.c", "f", 1);
  logger.objcLog(1, "dropped", "a/b.c", "f", 1);
  const auto received = handler->records();
  ASSERT_EQ(received.size(), 2U);
  EXPECT_EQ(received[0].text, received[1].text);
  EXPECT_EQ(received[0].level, received[1].level);
  EXPECT_DEATH(logger.objcLog(-1, "t", "a", "f", 1), "log level out of range: -1");
}

TEST_F(LoggerTest, LogsOnTheSharedLoggerWithThePlaceOfTheCall) {
  EXPECT_EQ(Logger::shared().handlers().size(), 1U);
  const test::CapturedLog log;
  Logger::shared().setLogLevel(LogLevel::debug);
  const unsigned line = __LINE__ + 1;
  logTrace({"routine()"});
  logInfo({"routine()"}, "{} of {}", 1, "two");
  Logger::shared().log(
      LogLevel::verbose, [] { return ADD_FAILURE(), "built for nothing"; }, "file", "f", 1);
  logWarning({"dir/other.cpp", "routine()"}, "{{}}");
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "D: (LoggerTests: routine()) TRACE LINE " + std::to_string(line),
                             "I: (LoggerTests) 1 of two", "W: (other) {}"}));
}

TEST_F(LoggerTest, BearsNewHandlersWhileOthersLog) {
  std::atomic<bool> isOver{false};
  std::vector<std::thread> loggers;
  for (int i = 0; i < 3; ++i) {
    loggers.emplace_back([&] {
      while (!isOver) {
        logger.log(
            LogLevel::info, [] { return "t"; }, "f", "f", 1);
      }
    });
  }
  std::vector<std::weak_ptr<LogHandlerProtocol>> former;
  for (int i = 0; i < 300; ++i) {
    former.emplace_back(logger.handlers()[0]);
    logger.setHandlers({std::make_shared<test::RecordingLogHandler>()});
    logger.setLogLevel(i % 2 == 0 ? LogLevel::info : LogLevel::debug);
  }
  isOver = true;
  for (auto& thread : loggers) thread.join();
  handler.reset();
  for (const auto& each : former) EXPECT_TRUE(each.expired());
}

TEST(LogLevel, IsMadeFromItsNameOrRawValueOnly) {
  for (int raw = 0; raw <= 4; ++raw) {
    EXPECT_EQ(logLevel(description(logLevel(raw).value())), logLevel(raw));
  }
  EXPECT_EQ(logLevel("warning"), LogLevel::warning);
  EXPECT_EQ(logLevel(3), LogLevel::warning);
  for (const char* const other : {"Warning", "warn", " info", "info ", "", "fault"}) {
    EXPECT_FALSE(logLevel(std::string_view(other)).has_value()) << other;
  }
  EXPECT_FALSE(logLevel(-1).has_value());
  EXPECT_FALSE(logLevel(5).has_value());
}

TEST(LogRecord, NamesRotatedFiles) {
  EXPECT_EQ(rotatedFilePath("dir/name.log", 1), "dir/name.1.log");
  EXPECT_EQ(rotatedFilePath("dir/name.log", 12), "dir/name.12.log");
  EXPECT_EQ(rotatedFilePath("dir/name.log", 0), "dir/name.log");
  EXPECT_EQ(rotatedFilePath("dir/name.log", -1), "dir/name.log");
  EXPECT_EQ(rotatedFilePath("dir.d/name", 1), "dir.d/name.1.");
  EXPECT_EQ(rotatedFilePath("dir/.name", 1), "dir/.name.1.");
  EXPECT_EQ(rotatedFilePath("a.b.log", 1), "a.b.1.log");
}

TEST(LogRecord, KeepsTheZoneOfTheFirstDateWithItsSummers) {
  test::inChild([] {
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    std::vector<std::pair<LogDate, std::string>> expected;
    const auto now = std::chrono::floor<std::chrono::minutes>(std::chrono::system_clock::now());
    for (auto date = now - 480h; date < now + 24'000h; date += 67min) {
      const std::time_t time = std::chrono::system_clock::to_time_t(date);
      std::tm local{};
      ::localtime_r(&time, &local);
      std::array<char, 32> text{};
      EXPECT_NE(std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S.000", &local), 0U);
      expected.emplace_back(date, text.data());
    }
    makeRecordPrefix(now, "first");
    ::setenv("TZ", "XST-7:45", 1);
    ::tzset();
    for (const auto& [date, text] : expected) {
      std::string written;
      appendLogDate(written, date);
      ASSERT_EQ(written, text);
    }
  });
}

}  // namespace
}  // namespace velum
