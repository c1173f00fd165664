#include "Velum/URLSession.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/CapturedLog.h"
#include "tests/support/Exchanges.h"
#include "tests/support/HttpServer.h"

namespace velum::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// Answers each request with the next error of a list, then with success.
class ScriptedLoader final : public URLLoader {
 public:
  explicit ScriptedLoader(std::vector<URLError> errors) : errors_(std::move(errors)) {}

  std::shared_ptr<URLTask> load(std::shared_ptr<const URLRequest> request, DispatchQueue& queue,
                                URLCompletion completion) override {
    struct Task final : URLTask {
      void cancel() override {}
      std::int64_t countOfBytesSent() const override { return 0; }
    };
    const std::size_t index = requests_++;
    if (index == 0) first_ = request;
    EXPECT_EQ(request, first_);  // one copy for all attempts
    queue.async([this, index, completion = std::move(completion)] {
      if (index < errors_.size()) {
        completion({}, std::nullopt, errors_[index]);
      } else {
        completion("data", URLResponse{.statusCode = 200, .headers = {}, .url = {}}, std::nullopt);
      }
    });
    return std::make_shared<Task>();
  }
  std::size_t requests() const { return requests_; }

 private:
  const std::vector<URLError> errors_;
  std::atomic<std::size_t> requests_{0};
  std::shared_ptr<const URLRequest> first_;
};

class Retrying : public testing::Test {
 protected:
  // How many requests were sent, and how it ended.
  static std::pair<std::size_t, Outcome> sent(const std::vector<URLError>& errors,
                                              unsigned retries) {
    ScriptedLoader loader(errors);
    URLSession session(loader);
    PendingExchange exchange({.url = "http://host/"}, retries, session);
    Outcome outcome = exchange.end();
    return {loader.requests(), std::move(outcome)};
  }

  CapturedLog log_;
};

const URLError timedOut = URLError::url(URLError::timedOut, "no answer");

TEST_F(Retrying, CountsTheFirstAttemptAmongTheRetriesAndSaysWhatItDoes) {
  const std::vector<URLError> failures(9, timedOut);
  for (const unsigned retries : {0U, 1U, 2U, 3U}) {
    const CapturedLog log;
    const auto [count, outcome] = sent(failures, retries);
    EXPECT_EQ(count, std::max(retries, 1U));
    EXPECT_EQ(outcome.failure(), "NSURLErrorDomain -1001");
    EXPECT_EQ(log.texts().back(), "V: (URLSession: execute(_:)) Request - exceeded limit");
  }
  const auto [requests, outcome] = sent({timedOut}, 2);
  EXPECT_EQ(outcome.data, "data");
  EXPECT_THAT(log_.texts(), ElementsAre("V: (URLSession: execute(_:)) Request retries count: 2",
                                        "V: (URLSession: execute(_:)) New attemp to send request"));
}

TEST_F(Retrying, TriesAgainAfterTransientErrorsOnly) {
  for (const int code : {-1001, -1003, -1004, -1005, -1006}) {
    EXPECT_EQ(sent({{"NSURLErrorDomain", code, ""}}, 5).first, 2U) << code;
  }
  EXPECT_EQ(sent({{"NSPOSIXErrorDomain", 41, ""}}, 5).first, 2U);
  for (const URLError& error : {URLError{"NSURLErrorDomain", -1009, "offline"},
                                {"NSURLErrorDomain", -999, "cancelled"},
                                {"NSURLErrorDomain", 41, ""},
                                {"NSPOSIXErrorDomain", -1001, ""},
                                {"NSPOSIXErrorDomain", 104, ""},
                                {"Other", 41, ""}}) {
    const auto [requests, outcome] = sent({error}, 5);
    EXPECT_EQ(requests, 1U) << error.domain << error.code;
    EXPECT_EQ(outcome.failure(), error.domain + ' ' + std::to_string(error.code));
  }
  EXPECT_THAT(log_.texts(),
              testing::Contains("E: (URLSession: execute(_:)) Request failed with error: offline"));
}

TEST_F(Retrying, ShowsNoSecretInAnyRecordOrError) {
  const HttpServer server;
  std::string user = server.url("/half?token=hidden");
  user.insert(user.find("//") + 2, "hidden:hidden@");
  for (const std::string& url :
       {user, server.closedUrl("/hidden"), server.url("/loop"),
        std::string("http://hidden:hidden@"), std::string("http://a:hidden@b:hidden/"),
        std::string("hidden://x")}) {
    const Outcome outcome = exchanged({.url = url,
                                       .headers = {{"Authorization", "Bearer hidden"},
                                                   {"Cookie", "hidden"},
                                                   {"X-Key", "hidden\r\n"}},
                                       .body = "hidden"},
                                      2);
    const Outcome other = exchanged({.url = url, .headers = {{"Authorization", "hidden"}}}, 2);
    ASSERT_TRUE(outcome.error && other.error);
    EXPECT_THAT(outcome.error->text + other.error->text, Not(HasSubstr("hidden")));
  }
  EXPECT_THAT(log_.texts(), testing::Each(Not(HasSubstr("hidden"))));
  EXPECT_THAT(log_.texts(), Not(IsEmpty()));
}

TEST_F(Retrying, EndsOnceWhenCancelledAtAnyMoment) {
  const HttpServer server;
  std::mt19937 random(5);  // NOLINT(cert-msc*): the same moments in every run
  const std::array<std::string, 5> urls{server.url("/never"), server.url("/echo"),
                                        server.closedUrl("/"), server.url("/flaky"),
                                        server.url("/reset")};
  std::vector<std::unique_ptr<PendingExchange>> exchanges;
  std::vector<std::jthread> cancellers;
  for (unsigned i = 0; i < 100; ++i) {
    exchanges.push_back(std::make_unique<PendingExchange>(
        URLRequest{.url = urls.at(i % urls.size()), .method = "POST", .body = "b"}, 1'000));
    if (i % 10 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 3'000));
    cancellers.emplace_back([exchange = exchanges.back().get()] { exchange->cancel(); });
  }
  cancellers.clear();
  for (auto& exchange : exchanges) {
    const Outcome outcome = exchange->end();
    const bool isCancelled = outcome.failure() == "NSURLErrorDomain -999";
    EXPECT_TRUE(isCancelled || outcome.status() == 200) << outcome.failure();
    exchange->cancel();  // too late, and harmless
  }
}

}  // namespace
}  // namespace velum::test
