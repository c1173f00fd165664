#include "Velum/IPCDarwinMessage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "Velum/Logger/Logger.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum {
namespace {

using namespace std::chrono_literals;

constexpr auto prefix = "com.example.test";

/// Every case runs in processes of its own: configuration, listeners and folder last as long as a
/// process.
class IPCDarwinMessageTest : public ::testing::Test {
 protected:
  IPCDarwinMessageTest() { ::setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1); }

  static void inProcess(const std::function<void()>& body) {
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
    const test::CapturedLog log;
    const std::string source = "(IPCDarwinMessage: sendRequest(_:responseId:)) ";
    for (const auto& [message, id, timeout] :
         {std::tuple("status", "id", 50ms), {"nobody", "id", 0ms}, {"status", "other", 60'000ms}}) {
      const bool isAnswered = std::string_view(id) == "other";
      EXPECT_EQ(IPCDarwinMessage::sendRequest(message, id, timeout), isAnswered);
      EXPECT_EQ(log.texts().back(),
                "D: " + source + "After waiting, result: " + (isAnswered ? "true" : "false"));
    }
    IPCDarwinMessage::sendResponse("status", "other");
    EXPECT_EQ(log.count("V: " + source + "calling sendRequest"), 3U);
    EXPECT_EQ(log.texts().back(),
              "V: (IPCDarwinMessage: sendResponse(_:id:)) calling sendResponse");
  });
}

TEST_F(IPCDarwinMessageTest, UsesTheAgreedNames) {
  inProcess([] {
    auto& center = NotifyCenter::shared(NotifyCenter::Scope::user);
    std::atomic<int> requests{0};
    std::atomic<int> responses{0};
    const std::string name = "com.example.test.DARWIN_NOTIFICATION.go";
    const auto request = center.addObserver(name, [&] { ++requests; });
    const auto response = center.addObserver(name + ".1.2", [&] { ++responses; });
    IPCDarwinMessage::sendResponse("go", "1.2");
    EXPECT_TRUE(test::eventually([&] { return responses == 1; }));
    EXPECT_EQ(requests, 0);
    EXPECT_FALSE(IPCDarwinMessage::sendRequest("go", "3", 0ms));
    EXPECT_TRUE(test::eventually([&] { return requests == 1; }));
  });
}

TEST_F(IPCDarwinMessageTest, AnyResponseWakesEveryWaiter) {
  inProcess([] {
    const std::vector<std::string> messages{"a", "b", "c", "d", "e"};
    std::atomic<std::size_t> asked{0};
    std::atomic<std::size_t> answered{0};
    {
      std::vector<std::jthread> threads;
      for (const auto& message : messages) {
        IPCDarwinMessage::addListener(message, [&] { ++asked; });
        threads.emplace_back([&] {
          if (IPCDarwinMessage::sendRequest(message, "id", test::deadline)) ++answered;
        });
      }
      EXPECT_TRUE(test::eventually([&] { return asked == messages.size(); }));
      EXPECT_EQ(answered, 0U);
      IPCDarwinMessage::sendResponse("c", "id");
    }
    EXPECT_EQ(answered, messages.size());
  });
}

TEST_F(IPCDarwinMessageTest, AListenerIsReplacedAndRemoved) {
  inProcess([] {
    std::string heard;  // by the queue of handlers, one by one
    std::atomic<std::size_t> count{0};
    const auto listen = [&](const std::string& message, char letter) {
      IPCDarwinMessage::addListener(message, [&, letter] {
        heard += letter;
        if (letter == '2') IPCDarwinMessage::removeListener("ask");  // in its own handler
        ++count;
      });
    };
    const auto isHeard = [&](const std::string& message, std::size_t wanted) {
      IPCDarwinMessage::sendRequest(message, "id", 0ms);
      return test::eventually([&] { return count == wanted; });
    };
    listen("ask", '1');
    EXPECT_TRUE(isHeard("ask", 1));
    listen("ask", '2');
    EXPECT_TRUE(isHeard("ask", 2));
    EXPECT_TRUE(IPCDarwinMessageQueue::shared().wait(test::deadline));
    IPCDarwinMessage::sendRequest("ask", "id", 0ms);
    listen("last", '3');
    EXPECT_TRUE(isHeard("last", 3));
    EXPECT_EQ(heard, "123");
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
    const test::CapturedLog log;
    test::writeFile(folder / "velum/notify", "in the way");
    ::chmod((folder / "velum").c_str(), 0700);
    EXPECT_FALSE(IPCDarwinMessage::sendRequest("status", "id"));
    IPCDarwinMessage::sendResponse("status", "id");
    EXPECT_FALSE(IPCDarwinMessage::addListener("status", [] {}));
    EXPECT_EQ(log.count("E: (IPCDarwinMessage: "), 3U);
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
