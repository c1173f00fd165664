#include "Velum/UIUtils.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/CapturedLog.h"
#include "tests/support/FakeWindowSystem.h"
#include "tests/support/MainThread.h"

namespace velum {
namespace {

using test::onMain;
using Texts = std::vector<std::string>;

const Texts shown{"policy 0", "activate ignoring others", "activate current"};

/// The log is read from the main queue, where everything happens, after what is queued there.
class UIUtilsTest : public ::testing::Test {
 protected:
  template <class Work>
  void run(Work work) {
    onMain([&] { work(); });
    // Completions. What the main queue's own thread hands in may be overtaken by one other's work.
    for (int round = 0; round < 2; ++round) onMain([] {});
  }
  /// What was logged and asked of the system since the last look.
  Texts newRecords() {
    Texts all = log_.texts();
    Texts fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return fresh;
  }
  Texts newCalls() { return std::exchange(system_.calls, {}); }

  test::CapturedLog log_;
  std::size_t seen_ = 0;
  test::FakeWindowSystem system_;
  std::shared_ptr<UIUtils> utils_ = UIUtils::make(system_);
  std::shared_ptr<const Window> window_ = std::make_shared<test::FakeWindow>(7, "Settings");
};

TEST_F(UIUtilsTest, IsRegularAsLongAsAWindowIsOpen) {
  run([&] { utils_->usePolicy(ActivationPolicy::accessory); });
  EXPECT_EQ(newCalls(), Texts{"policy 1"});
  EXPECT_EQ(newRecords(), Texts{"W: (UIUtils) Set activation policy to 'accessory'"});

  int completions = 0;
  run([&] {
    utils_->registerWindow(window_, [&] { ++completions; });
    EXPECT_EQ(completions, 0);
  });
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(newCalls(), (Texts{"show 7", shown[0], shown[1], shown[2]}));
  const std::string place = "D: (UIUtils: windowWillBeVisible(_:completion:)) ";
  EXPECT_EQ(newRecords(), (Texts{place + "Set activation policy to regular",
                                 "I: (UIUtils) Window registered and app activated: <Window 7> - "
                                 "'Settings', openedWindows count: 1",
                                 place + "Perform completion for <Window 7> - 'Settings'"}));

  // Once more changes no count, but brings the application forward again; and so does an alert.
  const auto alert =
      std::make_shared<Alert>(std::make_shared<test::FakeWindow>(8, "Question"), "Quit now?");
  run([&] {
    utils_->registerWindow(window_, {});
    utils_->registerWindow(alert, {});
  });
  EXPECT_EQ(newCalls().size(), 8U);
  EXPECT_TRUE(log_.has("'Settings', openedWindows count: 1"));
  EXPECT_TRUE(log_.has("<Window 8> - 'Quit now?', openedWindows count: 2"));
  newRecords();

  run([&] { system_.close(std::make_shared<test::FakeWindow>(7, "")); });
  EXPECT_EQ(newCalls(), Texts{});
  EXPECT_EQ(
      newRecords(),
      (Texts{"D: (UIUtils: init()) Will close window <Window 7> - 'Settings'",
             "I: (UIUtils) Window removed: <Window 7> - 'Settings', openedWindows count: 1"}));
  EXPECT_TRUE(utils_->hasRegisteredWindows());

  run([&] { utils_->unregisterWindow(alert); });
  EXPECT_EQ(newCalls(), Texts{"policy 1"});
  EXPECT_EQ(newRecords(),
            (Texts{"I: (UIUtils) Window removed: <Window 8> - 'Quit now?', openedWindows count: 0",
                   "I: (UIUtils) No more opened windows, activation policy set to accessory"}));
  EXPECT_FALSE(utils_->hasRegisteredWindows());
}

TEST_F(UIUtilsTest, DropsTheCompletionOfAWindowThatClosedBefore) {
  run([&] {
    utils_->registerWindow(window_, [] { FAIL(); });
    newCalls();
    system_.close(window_);
  });
  EXPECT_FALSE(log_.has("Perform completion"));
  EXPECT_EQ(newCalls(), Texts{}) << "the application is regular by default";
  EXPECT_EQ(newRecords().back(),
            "I: (UIUtils) Activation policy is already regular, no need to change it");
}

TEST_F(UIUtilsTest, TakesNothingForNoWindow) {
  run([&] {
    system_.close(nullptr);
    utils_->registerWindow(nullptr, [] { FAIL(); });
    utils_->unregisterWindow(nullptr);
  });
  EXPECT_EQ(newCalls(), Texts{});
  EXPECT_EQ(newRecords(), (Texts{"E: (UIUtils: init()) Nil window",
                                 "E: (UIUtils: windowWillBeVisible(_:completion:)) Nil window",
                                 "E: (UIUtils: removeWindow(_:)) Nil window"}));
}

TEST_F(UIUtilsTest, NamesEveryPolicy) {
  run([&] {
    utils_->usePolicy(ActivationPolicy::regular);
    utils_->usePolicy(ActivationPolicy::prohibited);
    utils_->usePolicy(static_cast<ActivationPolicy>(-3));
  });
  EXPECT_EQ(newRecords(), (Texts{"W: (UIUtils) Set activation policy to 'regular'",
                                 "W: (UIUtils) Set activation policy to 'prohibited'",
                                 "W: (UIUtils) Set activation policy to 'unknown(-3)'"}));
}

TEST_F(UIUtilsTest, SaysThatItRunsOnTheWrongThreadAndCarriesOn) {
  onMain([] {});
  utils_->registerWindow(window_, {});
  EXPECT_EQ(newRecords().front(),
            "E: (UIUtils: windowWillBeVisible(_:completion:)) Must be run on main run loop");
  EXPECT_EQ(newCalls().size(), 4U);
  onMain([] {});  // its completion
}

TEST(UIUtilsDeathTest, IsStoppedOffTheMainQueue) {
  const auto elsewhere = [](auto call) { std::thread(call).join(); };
  const std::string text = "off the main queue\n$";
  EXPECT_DEATH(elsewhere([] { UIUtils::windowWillBeVisible(nullptr, {}); }),
               "^UIUtils: windowWillBeVisible\\(_:completion:\\) " + text);
  EXPECT_DEATH(elsewhere([] { UIUtils::removeWindow(nullptr); }), text);
  EXPECT_DEATH(elsewhere([] { UIUtils::setActivationPolicy(ActivationPolicy::regular); }), text);
  EXPECT_DEATH(elsewhere([] { UIUtils::hasOpenedWindows(); }), text);
}

}  // namespace
}  // namespace velum
