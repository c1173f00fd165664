#include "vpn_relauncher/TerminationListener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "tests/support/CapturedLog.h"
#include "tests/support/FakeWorkspace.h"

namespace velum::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr pid_t quitting = 4711;
constexpr const char* identifier = "com.quillon.example.sample";  // of that bundle

/// A main queue on which time passes when the test says so.
class FakeQueue final : public DispatchQueue {
 public:
  const std::string& label() const noexcept override { return label_; }
  void async(Work work) override { asyncAfter({}, std::move(work)); }
  void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
    delays.push_back(std::chrono::duration<double>(delay).count());
    waiting.push_back(std::move(work));
  }
  void drain() {
    while (!waiting.empty()) std::exchange(waiting, {}).front()();
  }

  std::vector<double> delays;
  std::vector<Work> waiting;

 private:
  std::string label_ = "fake";
};

class TerminationListenerTest : public testing::Test {
 protected:
  TerminationListener listener() {
    return {bundle_, quitting, workspace_, queue_,
            [this](int status) { exits_.push_back(status); }};
  }

  std::string bundle_ = VELUM_SAMPLE_BUNDLE;
  FakeWorkspace workspace_;
  FakeQueue queue_;
  std::vector<int> exits_;
  CapturedLog log_;
};

TEST_F(TerminationListenerTest, WaitsUntilTheInstanceIsGoneThenOpensItOnce) {
  workspace_.run(quitting, identifier);
  workspace_.run(1);
  {
    auto subject = listener();
    EXPECT_THAT(workspace_.observed, ElementsAre(Pair("runningApplications", quitting)));
    subject.observeValue("runningApplications");  // a change that concerns another process
    EXPECT_THAT(workspace_.opened, IsEmpty());

    workspace_.running.clear();
    subject.observeValue(std::nullopt);
    subject.observeValue("frontmostApplication");
    EXPECT_THAT(workspace_.opened, IsEmpty());

    subject.observeValue("runningApplications");
    subject.observeValue("runningApplications");
    EXPECT_THAT(workspace_.opened, ElementsAre(bundle_));
    EXPECT_THAT(exits_, ElementsAre(0));
    EXPECT_THAT(log_.texts(), ElementsAre("I: (main) App was relaunched successfully"));
  }
  EXPECT_EQ(workspace_.observer, nullptr);
}

TEST_F(TerminationListenerTest, RelaunchesFromTheConstructorWhenOrphaned) {
  workspace_.run(quitting, identifier);  // may still be shutting down, and does not count
  workspace_.orphanedBy = quitting;
  auto subject = listener();
  EXPECT_THAT(workspace_.opened, ElementsAre(bundle_));
  subject.observeValue("runningApplications");
  EXPECT_EQ(workspace_.opened.size(), 1U);
}

TEST_F(TerminationListenerTest, LeavesAnotherRunningInstanceAlone) {
  workspace_.run(1);
  workspace_.run(99, "com.quillon.example.sample2");
  workspace_.run(100, identifier);
  auto subject = listener();
  subject.observeValue("runningApplications");
  EXPECT_THAT(workspace_.opened, IsEmpty());
  EXPECT_THAT(exits_, ElementsAre(0));
  EXPECT_THAT(log_.texts(), ElementsAre("I: (main) App is already running, no need to relaunch"));
}

TEST_F(TerminationListenerTest, OpensWhatHasNoIdentifierWhateverRuns) {
  workspace_.run(100, identifier);
  bundle_ = "/missing.app";
  auto subject = listener();
  subject.observeValue("runningApplications");
  EXPECT_THAT(workspace_.opened, ElementsAre(bundle_));
}

TEST_F(TerminationListenerTest, GivesUpAfterElevenAttemptsWithGrowingPauses) {
  workspace_.openError = "no such {} file";
  auto subject = listener();
  subject.observeValue("runningApplications");
  queue_.drain();

  EXPECT_EQ(workspace_.opened.size(), 11U);
  EXPECT_THAT(exits_, ElementsAre(1));
  ASSERT_EQ(queue_.delays.size(), 10U);
  double sum = 0;
  for (int k = 0; k < 10; ++k) {
    const double delay = queue_.delays[static_cast<std::size_t>(k)];
    EXPECT_NEAR(delay, 0.1 * std::pow(1.475, k + 1), 1e-6);
    EXPECT_EQ(log_.texts()[static_cast<std::size_t>(k)],
              "W: (main) Restart failed. Attempts left: " + std::to_string(9 - k));
    sum += delay;
  }
  EXPECT_NEAR(sum, 14.83, 0.005);
  EXPECT_EQ(log_.texts().back(),
            "E: (main: relaunchWithRetries()) Restart failed with error: no such {} file");
  EXPECT_EQ(log_.texts().size(), 11U);
}

TEST_F(TerminationListenerTest, SucceedsOnALaterAttemptAndSeesAnInstanceStartedMeanwhile) {
  workspace_.openError = "busy";
  auto subject = listener();
  subject.observeValue("runningApplications");
  workspace_.run(100, identifier);
  queue_.drain();
  EXPECT_EQ(workspace_.opened.size(), 1U);
  EXPECT_THAT(exits_, ElementsAre(0));
  EXPECT_EQ(log_.texts().back(), "I: (main) App is already running, no need to relaunch");
}

}  // namespace
}  // namespace velum::test
