#include "Velum/Platform/WindowSystem.h"

#include <gtest/gtest.h>

#include <csignal>
#include <tuple>

#include "Velum/Platform/Linux/Windows/WindowSystemLinux.h"
#include "Velum/UIUtils.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/MainThread.h"
#include "tests/support/XServer.h"

namespace velum {
namespace {

using test::onMain;
using test::ScopedVariable;
using test::XClient;

/// The windows that closed, in order, as "id title".
class Closings {
 public:
  explicit Closings(WindowSystem& system)
      : observer_(onMain([&] {
          return system.observeClosing([this](const std::shared_ptr<const Window>& window) {
            EXPECT_TRUE(DispatchQueue::isMain());
            closed_.push_back(std::to_string(window->id()) + ' ' + window->title());
          });
        })) {}
  Closings(const Closings&) = delete;
  Closings& operator=(const Closings&) = delete;
  ~Closings() {
    onMain([this] { observer_.reset(); });
  }

  /// One after the other, and no other.
  bool waitFor(const std::vector<std::pair<WindowId, std::string>>& expected) const {
    std::vector<std::string> texts;
    for (const auto& [id, title] : expected) texts.push_back(std::to_string(id) + ' ' + title);
    const auto closed = [this] { return onMain([this] { return closed_; }); };
    return test::eventually([&] { return closed().size() >= texts.size(); }) && closed() == texts;
  }

 private:
  std::vector<std::string> closed_;  // by the main queue alone
  WindowSystem::CloseObserver observer_;
};

/// One X server with a window manager, this program's windows and another program's. For all tests:
/// the server gives the ids of a program that has left to the next one, and the manager would take
/// their windows for each other.
struct Desktop {
  test::XServer server;
  XClient program;
  XClient otherProgram;
  test::WindowManager manager{otherProgram};
};

class Windows : public ::testing::Test {
 public:
  static void SetUpTestSuite() {
    desktop = std::make_unique<Desktop>();
    test::startMainThread();
  }
  static void TearDownTestSuite() { desktop.reset(); }

 protected:
  static constexpr pid_t otherPid = 1;

  void SetUp() override {
    onMain([] { UIUtils::setActivationPolicy(ActivationPolicy::regular); });
  }
  void TearDown() override {
    client_.destroyAll();
    other_.destroyAll();
  }
  /// As one step of the application.
  static void setPolicy(ActivationPolicy policy) {
    onMain([policy] { WindowSystem::shared().setActivationPolicy(policy); });
  }
  static std::shared_ptr<const Window> window(WindowId id) {
    return onMain([id] { return WindowSystem::shared().window(id); });
  }
  bool hasSkips(xcb_window_t id, int count) {
    return test::eventually([&] { return client_.skips(id) == count; });
  }
  bool isInFront(xcb_window_t id) {
    return test::eventually(
        [&] { return client_.activeWindow() == id && client_.topWindow() == id; });
  }

  static inline std::unique_ptr<Desktop> desktop;
  XClient& client_ = desktop->program;
  XClient& other_ = desktop->otherProgram;
};

TEST_F(Windows, BringTheirApplicationForwardUntilTheLastOneCloses) {
  const xcb_window_t unregistered = client_.create({.title = "Tray helper"});
  ASSERT_TRUE(client_.show(unregistered));
  onMain([] { UIUtils::setActivationPolicy(ActivationPolicy::accessory); });
  EXPECT_TRUE(hasSkips(unregistered, 2));

  const xcb_window_t settings = client_.create({.title = "Settings"});
  const xcb_window_t foreign = other_.create({.title = "Editor", .pid = otherPid});
  ASSERT_TRUE(other_.show(foreign));
  ASSERT_TRUE(isInFront(foreign));

  const auto registered = window(settings);
  EXPECT_EQ(registered->title(), "Settings");
  bool isCompleted = false;
  onMain([&] {
    UIUtils::windowWillBeVisible(registered, [&] {
      isCompleted = true;
      client_.map(settings);
    });
  });
  EXPECT_TRUE(isInFront(settings));
  EXPECT_TRUE(hasSkips(settings, 0));
  EXPECT_TRUE(hasSkips(unregistered, 0));
  EXPECT_TRUE(onMain([&] { return isCompleted && UIUtils::hasOpenedWindows(); }));

  client_.destroy(settings);
  EXPECT_TRUE(hasSkips(unregistered, 2));
  EXPECT_FALSE(onMain([] { return UIUtils::hasOpenedWindows(); }));
  EXPECT_EQ(other_.skips(foreign), 0) << "another program's window";
}

TEST_F(Windows, KeepThePolicyThroughUnmapping) {
  const xcb_window_t id = client_.create({.title = "Settings"});
  window(id);
  setPolicy(ActivationPolicy::accessory);
  EXPECT_TRUE(hasSkips(id, 2)) << "before it is shown for the first time";
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(client_.show(id));
    EXPECT_TRUE(hasSkips(id, 2));
    client_.unmap(id);
    ASSERT_TRUE(test::eventually([&] { return client_.wmState(id) == XClient::withdrawnState; }));
    EXPECT_TRUE(hasSkips(id, 2)) << "deleted by the manager, so set again";
  }
  // Hidden and shown in one go.
  ASSERT_TRUE(client_.show(id));
  client_.unmap(id);
  client_.map(id);
  EXPECT_TRUE(test::eventually(
      [&] { return client_.wmState(id) == XClient::normalState && client_.skips(id) == 2; }));
  setPolicy(ActivationPolicy::regular);
  EXPECT_TRUE(hasSkips(id, 0));
}

TEST_F(Windows, CloseOnceHoweverTheyDo) {
  const Closings closings(WindowSystem::shared());
  const xcb_window_t foreign = other_.create({.title = "Editor", .pid = otherPid});
  const xcb_window_t remote = other_.create({.title = "Remote", .machine = "elsewhere"});
  const xcb_window_t hidden = client_.create({.title = "Hidden"});
  const xcb_window_t destroyed = client_.create({.title = "Destroyed"});
  const xcb_window_t neverShown = client_.create({.title = "Never shown"});
  for (const xcb_window_t id : {foreign, remote}) ASSERT_TRUE(other_.show(id));
  for (const xcb_window_t id : {hidden, destroyed}) ASSERT_TRUE(client_.show(id));
  client_.setTitle(destroyed, "Renamed");
  const auto registered = window(neverShown);
  onMain([&] { WindowSystem::shared().willShow(*registered); });

  // None of these is one: minimised, shown again, somebody else's.
  const auto known = window(hidden);
  client_.minimise(hidden);
  ASSERT_TRUE(test::eventually([&] { return client_.wmState(hidden) == XClient::iconicState; }));
  ASSERT_TRUE(client_.show(hidden));
  other_.destroy(foreign);
  other_.unmap(remote);

  EXPECT_TRUE(test::eventually([&] { return window(destroyed)->title() == "Renamed"; }));
  client_.unmap(hidden);
  EXPECT_TRUE(closings.waitFor({{hidden, "Hidden"}}));
  client_.destroy(hidden);
  client_.destroy(destroyed);
  EXPECT_TRUE(closings.waitFor({{hidden, "Hidden"}, {destroyed, "Renamed"}}));
  client_.destroy(neverShown);
  EXPECT_TRUE(
      closings.waitFor({{hidden, "Hidden"}, {destroyed, "Renamed"}, {neverShown, "Never shown"}}));
}

TEST_F(Windows, AreActivatedWithTheTimeOfTheUsersLastEvent) {
  const xcb_window_t id = client_.create({.title = "Settings"});
  const auto ours = window(id);
  XClient watcher;
  const auto activate = [&] {
    onMain([&] {
      WindowSystem::shared().willShow(*ours);
      WindowSystem::shared().activateIgnoringOtherApps();
    });
    return watcher.waitForMessage(client_.atoms()._NET_ACTIVE_WINDOW);
  };
  ASSERT_TRUE(client_.show(id));
  auto message = activate();
  EXPECT_EQ(message.window, id);
  EXPECT_EQ(message.data.data32[0], 1U) << "source: an application";
  const xcb_timestamp_t serverTime = message.data.data32[1];
  EXPECT_NE(serverTime, XCB_CURRENT_TIME);

  client_.setUserTime(id, serverTime + 100);
  message = activate();
  EXPECT_EQ(message.data.data32[1], serverTime + 100);

  setPolicy(ActivationPolicy::prohibited);
  onMain([] { WindowSystem::shared().activateCurrentApplication(); });
  setPolicy(ActivationPolicy::regular);
  client_.setUserTime(id, serverTime + 200);
  message = activate();
  EXPECT_EQ(message.data.data32[1], serverTime + 200) << "none while it was prohibited";

  const xcb_window_t late = client_.create({.title = "Late"});
  const auto hidden = window(late);
  onMain([&] {
    WindowSystem::shared().willShow(*hidden);
    WindowSystem::shared().activateIgnoringOtherApps();
  });
  client_.map(late);
  EXPECT_EQ(watcher.waitForMessage(client_.atoms()._NET_ACTIVE_WINDOW).window, late);
}

TEST_F(Windows, AreSeenByAForkedChildAndStillByItsParent) {
  const Closings closings(WindowSystem::shared());
  const xcb_window_t id = client_.create({.title = "Parent's"});
  ASSERT_TRUE(client_.show(id));
  test::inChild([] {
    XClient client;
    const xcb_window_t own = client.create({.title = "Child's"});
    const auto window = WindowSystem::shared().window(own);
    EXPECT_EQ(window->title(), "Child's");
    WindowSystem::shared().setActivationPolicy(ActivationPolicy::accessory);
    EXPECT_TRUE(test::eventually([&] { return client.skips(own) == 2; }));
  });
  EXPECT_EQ(client_.skips(id), 0);
  client_.destroy(id);
  EXPECT_TRUE(closings.waitFor({{id, "Parent's"}}));
}

TEST_F(Windows, MayBeUnknownToTheServer) {
  const xcb_window_t id = client_.create({.title = "Settings"});
  for (const WindowId nowhere : {WindowId{0x1FFFFFFF}, WindowId{1} << 32U | id}) {
    const auto unknown = window(nowhere);
    EXPECT_EQ(unknown->id(), nowhere);
    EXPECT_EQ(unknown->title(), "");
    onMain([&] {
      WindowSystem::shared().willShow(*unknown);
      WindowSystem::shared().activateIgnoringOtherApps();
      WindowSystem::shared().setActivationPolicy(static_cast<ActivationPolicy>(99));
    });
  }
  ASSERT_TRUE(client_.show(id));
  setPolicy(ActivationPolicy::accessory);
  EXPECT_TRUE(hasSkips(id, 2));
}

/// Everything there is to call.
void useAll(WindowSystem& system) {
  const auto window = system.window(0x400001);
  system.willShow(*window);
  system.setActivationPolicy(ActivationPolicy::accessory);
  system.setActivationPolicy(ActivationPolicy::regular);
  system.activateIgnoringOtherApps();
  system.activateCurrentApplication();
  const auto observer = system.observeClosing([](const auto&) {});
}

TEST(WindowSystem, SaysOnceWhatIsMissing) {
  using Value = std::optional<std::string>;
  const std::vector<std::tuple<Value, Value, std::string>> cases{
      {{}, {}, "DISPLAY is not set"},
      {"", "wayland-0", "this Wayland session has no X server (Xwayland)"},
      {":4711", {}, "no X server at display ':4711': Connection refused"},
      {"nonsense", {}, "no X server at display 'nonsense': Invalid argument"}};
  for (const auto& [display, wayland, text] : cases) {
    const ScopedVariable displayVariable("DISPLAY", display);
    const ScopedVariable waylandVariable("WAYLAND_DISPLAY", wayland);
    const test::CapturedLog log;
    const auto system = WindowSystemLinux::make();
    onMain([&] {
      useAll(*system);
      useAll(*system);
    });
    EXPECT_EQ(log.count("W: (WindowSystem) No windows: " + text), 1U) << text;
    EXPECT_EQ(log.texts().size(), 1U);
  }
}

TEST(WindowSystem, WorksWithoutAWindowManagerUntilTheServerEnds) {
  test::XServer server;
  XClient client;
  const test::CapturedLog log;
  const auto system = WindowSystemLinux::make();
  const Closings closings(*system);
  const xcb_window_t id = client.create({.title = "Settings"});
  const auto window = onMain([&] { return system->window(id); });
  onMain([&] {
    system->willShow(*window);
    system->setActivationPolicy(ActivationPolicy::accessory);
    system->activateIgnoringOtherApps();
    system->activateCurrentApplication();
  });
  EXPECT_TRUE(test::eventually([&] { return client.skips(id) == 2; }));
  client.map(id);
  client.unmap(id);
  EXPECT_TRUE(closings.waitFor({{id, "Settings"}}));
  EXPECT_EQ(log.count("There is no window manager"), 1U);
  server.end();
  EXPECT_TRUE(test::eventually([&] { return log.has("the X server is gone"); })) << "by itself";
}

TEST(WindowSystem, SurvivesItsServer) {
  test::inChild([] {
    std::signal(SIGPIPE, SIG_DFL);
    test::XServer server;
    const test::CapturedLog log;
    auto system = WindowSystemLinux::make();
    useAll(*system);
    EXPECT_FALSE(log.has("W: "));
    server.end();
    useAll(*system);
    useAll(*system);
    EXPECT_EQ(log.count("the X server is gone"), 1U);
  });
}

TEST(WindowSystem, DoesNotWaitForEver) {
  test::XServer server;
  const test::CapturedLog log;
  const auto connected = WindowSystemLinux::make(std::chrono::seconds(2));
  onMain([&] { useAll(*connected); });
  server.signal(SIGSTOP);
  onMain([&] {
    useAll(*connected);
    useAll(*connected);
  });
  EXPECT_EQ(log.count("does not answer"), 1U);
  const auto late = WindowSystemLinux::make(std::chrono::milliseconds(50));
  onMain([&] {
    useAll(*late);
    useAll(*late);
  });
  EXPECT_EQ(log.count("No windows: no X server at display"), 1U);
}

}  // namespace
}  // namespace velum
