#include "Velum/IPCDarwinMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Velum/Logger/Logger.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Processes.h"
#include "tests/support/RecordingLogHandler.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

constexpr auto prefix = "com.example.test";

/// Every case runs in processes of its own: configuration, listeners and folder last as long as a
/// process.
class IPCDarwinMessageTest : public ::testing::Test {
 protected:
  IPCDarwinMessageTest() { ::setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1); }

  void inProcess(const std::function<void()>& body) const {
    test::inChild([&] {
      install();
      body();
    });
  }
  static void install() {
    IPCDarwinMessageConfig::install({.prefix = prefix});
    Logger::shared().setHandlers({});
  }
  /// Another process that answers `message` with the response `id` each time; the second value is
  /// kept for as long as it may run.
  static test::ChildProcess responder(const std::string& message, const std::string& id) {
    const test::Pipe ready;
    test::ChildProcess child([&] {
      install();
      EXPECT_TRUE(IPCDarwinMessage::addListener(
          message, [message, id] { IPCDarwinMessage::sendResponse(message, id); }));
      EXPECT_EQ(::write(ready.writer.get(), "x", 1), 1);
      for (;;) ::pause();
    });
    EXPECT_TRUE(test::isReadable(ready.reader.get()));
    return child;
  }

  test::TemporaryFolder folder;
};

TEST_F(IPCDarwinMessageTest, ARequestReturnsFalseWithoutItsAnswer) {
  const auto answering = responder("status", "other");
  inProcess([] {
    const auto handler = std::make_shared<test::RecordingLogHandler>();
    Logger::shared().setHandlers({handler});
    Logger::shared().setLogLevel(LogLevel::verbose);
    EXPECT_FALSE(IPCDarwinMessage::sendRequest("status", "id", 50ms));
    EXPECT_FALSE(IPCDarwinMessage::sendRequest("nobody", "id", 0ms));
    EXPECT_TRUE(IPCDarwinMessage::sendRequest("status", "other", test::deadline));
    IPCDarwinMessage::sendResponse("status", "other");
    const std::string source = "(IPCDarwinMessage: sendRequest(_:responseId:)) ";
    const std::string calling = "V: " + source + "calling sendRequest";
    const std::string failed = "D: " + source + "After waiting, result: false";
    EXPECT_THAT(handler->texts(), ElementsAre(calling, failed, calling, failed, calling,
                                              "D: " + source + "After waiting, result: true",
                                              "V: (IPCDarwinMessage: sendResponse(_:id:)) "
                                              "calling sendResponse"));
  });
}

TEST_F(IPCDarwinMessageTest, UsesTheAgreedNames) {
  inProcess([] {
    auto& center = NotifyCenter::shared(NotifyCenter::Scope::user);
    std::atomic<int> requests{0};
    std::atomic<int> responses{0};
    const auto request =
        center.addObserver("com.example.test.DARWIN_NOTIFICATION.go", [&] { ++requests; });
    const auto response =
        center.addObserver("com.example.test.DARWIN_NOTIFICATION.go.1.2", [&] { ++responses; });
    IPCDarwinMessage::sendResponse("go", "1.2");
    EXPECT_TRUE(test::eventually([&] { return responses == 1; }));
    EXPECT_EQ(requests, 0);
    EXPECT_FALSE(IPCDarwinMessage::sendRequest("go", "3", 0ms));
    EXPECT_TRUE(test::eventually([&] { return requests == 1; }));
  });
}

TEST_F(IPCDarwinMessageTest, AnyResponseWakesEveryWaiter) {
  inProcess([] {
    constexpr int waiters = 5;
    std::atomic<int> asked{0};
    for (int i = 0; i < waiters; ++i) {
      IPCDarwinMessage::addListener("ask" + std::to_string(i), [&] { ++asked; });
    }
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < waiters; ++i) {
      threads.emplace_back([i, &answered] {
        if (IPCDarwinMessage::sendRequest("ask" + std::to_string(i), "id", test::deadline)) {
          ++answered;
        }
      });
    }
    EXPECT_TRUE(test::eventually([&] { return asked == waiters; }));
    EXPECT_EQ(answered, 0);
    IPCDarwinMessage::sendResponse("ask3", "id");
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(answered, waiters);
  });
}

TEST_F(IPCDarwinMessageTest, AListenerIsReplacedAndRemoved) {
  inProcess([] {
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    const auto ask = [] { IPCDarwinMessage::sendRequest("ask", "id", 0ms); };
    IPCDarwinMessage::addListener("ask", [&] { ++first; });
    ask();
    EXPECT_TRUE(test::eventually([&] { return first == 1; }));
    IPCDarwinMessage::addListener("ask", [&] {
      ++second;
      IPCDarwinMessage::removeListener("ask");  // in its own handler
    });
    ask();
    EXPECT_TRUE(test::eventually([&] { return second == 1; }));
    EXPECT_TRUE(IPCDarwinMessageQueue::shared().wait(test::deadline));
    ask();
    std::atomic<int> last{0};
    IPCDarwinMessage::addListener("last", [&] { ++last; });
    IPCDarwinMessage::sendRequest("last", "id", 0ms);
    EXPECT_TRUE(test::eventually([&] { return last == 1; }));
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
  });
}

TEST_F(IPCDarwinMessageTest, HandlersRunOneByOneAndMayAskThemselves) {
  const auto answering = responder("inner", "id.with.dots.17");
  inProcess([] {
    std::atomic<int> running{0};
    std::atomic<int> done{0};
    std::atomic<std::thread::id> queue;
    IPCDarwinMessageQueue::shared().async([&] { queue = std::this_thread::get_id(); });
    EXPECT_TRUE(IPCDarwinMessageQueue::shared().wait(test::deadline));
    for (const char* message : {"a", "b"}) {
      IPCDarwinMessage::addListener(message, [&] {
        EXPECT_EQ(++running, 1);
        EXPECT_EQ(std::this_thread::get_id(), queue.load());
        for (int i = 0; i < 150; ++i) {
          ASSERT_TRUE(IPCDarwinMessage::sendRequest("inner", "id.with.dots.17", test::deadline));
        }
        --running;
        ++done;
      });
    }
    IPCDarwinMessage::sendRequest("a", "x", 0ms);
    IPCDarwinMessage::sendRequest("b", "x", 0ms);
    EXPECT_TRUE(test::eventually([&] { return done == 2; }));
    EXPECT_TRUE(IPCDarwinMessageQueue::shared().wait(test::deadline));
  });
}

TEST_F(IPCDarwinMessageTest, FailuresOfTheNotificationsAreLogged) {
  inProcess([this] {
    const auto handler = std::make_shared<test::RecordingLogHandler>();
    Logger::shared().setHandlers({handler});
    test::writeFile(folder / "velum/notify", "in the way");
    ::chmod((folder / "velum").c_str(), 0700);
    EXPECT_FALSE(IPCDarwinMessage::sendRequest("status", "id"));
    IPCDarwinMessage::sendResponse("status", "id");
    EXPECT_FALSE(IPCDarwinMessage::addListener("status", [] {}));
    const auto records = handler->records();
    ASSERT_EQ(records.size(), 3U);
    for (const auto& record : records) EXPECT_EQ(record.level, LogLevel::error) << record.text;
  });
}

using IPCDarwinMessageDeathTest = IPCDarwinMessageTest;

TEST_F(IPCDarwinMessageDeathTest, StopsTheProcessWithoutAConfiguration) {
  EXPECT_DEATH(IPCDarwinMessage::sendRequest("status", "id"), "IPCDarwinMessageConfig");
  EXPECT_DEATH(IPCDarwinMessage::sendResponse("status", "id"), "IPCDarwinMessageConfig");
  EXPECT_DEATH(IPCDarwinMessage::addListener("status", [] {}), "IPCDarwinMessageConfig");
  const auto twice = [] {
    install();
    install();
  };
  EXPECT_DEATH(twice(), "installed twice");
}

}  // namespace
}  // namespace velum
