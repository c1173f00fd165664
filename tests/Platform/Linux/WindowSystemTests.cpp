#include "Velum/Platform/WindowSystem.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <mutex>

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
using Ids = std::vector<WindowId>;

constexpr std::uint32_t red = 0xC02020;
constexpr std::uint32_t blue = 0x2020C0;

/// The windows that closed, in order.
class Closings {
 public:
  explicit Closings(WindowSystem& system)
      : observer_(onMain([&] {
          return system.observeClosing([this](const std::shared_ptr<const Window>& window) {
            EXPECT_TRUE(DispatchQueue::isMain());
            const std::lock_guard guard(mutex_);
            ids_.push_back(window->id());
            titles_.push_back(window->title());
          });
        })) {}
  Closings(const Closings&) = delete;
  Closings& operator=(const Closings&) = delete;
  ~Closings() {
    onMain([this] { observer_.reset(); });
  }

  Ids ids() const {
    const std::lock_guard guard(mutex_);
    return ids_;
  }
  std::vector<std::string> titles() const {
    const std::lock_guard guard(mutex_);
    return titles_;
  }
  bool waitFor(const Ids& expected) const {
    return test::eventually([&] { return ids().size() >= expected.size(); }) && ids() == expected;
  }

 private:
  mutable std::mutex mutex_;
  Ids ids_;
  std::vector<std::string> titles_;
  WindowSystem::CloseObserver observer_;
};

/// One X server with a window manager, this program's windows and another program's.
class Windows : public ::testing::Test {
 public:
  static void SetUpTestSuite() {
    server = std::make_unique<test::XServer>();
    // For all tests: the server gives the ids of a program that has left to the next one, and the
    // manager would take their windows for each other.
    program = std::make_unique<XClient>();
    otherProgram = std::make_unique<XClient>();
    manager = std::make_unique<test::WindowManager>(*otherProgram);
    test::startMainThread();
  }
  static void TearDownTestSuite() {
    program.reset();
    otherProgram.reset();
    manager.reset();
    server.reset();
  }

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
    return client_.waitFor([&] { return client_.skips(id) == count; });
  }
  bool isInFront(xcb_window_t id, std::uint32_t color) {
    return client_.waitFor([&] { return client_.activeWindow() == id; }) &&
           test::eventually([&] { return client_.middle() == color; });
  }

  static inline std::unique_ptr<test::XServer> server;
  static inline std::unique_ptr<test::WindowManager> manager;
  static inline std::unique_ptr<XClient> program;
  static inline std::unique_ptr<XClient> otherProgram;
  XClient& client_ = *program;
  XClient& other_ = *otherProgram;
};

void takeScreenshot() {
  if (::access(std::filesystem::path(VELUM_SCREENSHOT).parent_path().c_str(), W_OK) != 0) return;
  SpawnOptions options;
  options.executable.assign("/usr/bin/xwd");
  options.arguments = {"xwd", "-root", "-silent", "-out", VELUM_SCREENSHOT};
  options.environment = environmentWithout({});
  EXPECT_EQ(test::exitStatus(spawn(options)), 0);
  EXPECT_GT(std::filesystem::file_size(VELUM_SCREENSHOT), 640U * 480U);
}

TEST_F(Windows, BringTheirApplicationForwardUntilTheLastOneCloses) {
  const xcb_window_t unregistered = client_.create({.title = "Tray helper"});
  ASSERT_TRUE(client_.show(unregistered));
  onMain([] { UIUtils::setActivationPolicy(ActivationPolicy::accessory); });
  EXPECT_TRUE(hasSkips(unregistered, 2));

  const xcb_window_t settings = client_.create({.title = "Settings", .color = red});
  const xcb_window_t foreign = other_.create({.title = "Editor", .color = blue, .pid = otherPid});
  ASSERT_TRUE(other_.show(foreign));
  ASSERT_TRUE(isInFront(foreign, blue));

  const auto registered = window(settings);
  EXPECT_EQ(registered->title(), "Settings");
  bool isCompleted = false;
  onMain([&] {
    UIUtils::windowWillBeVisible(registered, [&] {
      isCompleted = true;
      client_.map(settings);
    });
  });
  EXPECT_TRUE(isInFront(settings, red));
  EXPECT_TRUE(hasSkips(settings, 0));
  EXPECT_TRUE(hasSkips(unregistered, 0));
  EXPECT_TRUE(onMain([&] { return isCompleted && UIUtils::hasOpenedWindows(); }));
  takeScreenshot();

  // The user clicks on the button that closes it, and the program does.
  client_.requestClose(settings);
  const auto request = client_.waitForMessage(client_.atom("WM_PROTOCOLS"));
  EXPECT_EQ(request.data.data32[0], client_.atom("WM_DELETE_WINDOW"));
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
    ASSERT_TRUE(client_.waitFor([&] { return client_.wmState(id) == XClient::withdrawnState; }));
    EXPECT_TRUE(hasSkips(id, 2)) << "deleted by the manager, so set again";
  }
  // Hidden and shown in one go.
  ASSERT_TRUE(client_.show(id));
  client_.unmap(id);
  client_.map(id);
  EXPECT_TRUE(client_.waitFor(
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
  ASSERT_TRUE(client_.waitFor([&] { return client_.wmState(hidden) == XClient::iconicState; }));
  ASSERT_TRUE(client_.show(hidden));
  other_.destroy(foreign);
  other_.unmap(remote);

  EXPECT_TRUE(test::eventually([&] { return window(destroyed)->title() == "Renamed"; }));
  client_.unmap(hidden);
  EXPECT_TRUE(closings.waitFor({hidden}));
  client_.destroy(hidden);
  client_.destroy(destroyed);
  EXPECT_TRUE(closings.waitFor({hidden, destroyed}));
  client_.destroy(neverShown);
  EXPECT_TRUE(closings.waitFor({hidden, destroyed, neverShown}));
  EXPECT_EQ(closings.titles(), (std::vector<std::string>{"Hidden", "Renamed", "Never shown"}));
}

TEST_F(Windows, AreActivatedWithTheTimeOfTheUsersLastEvent) {
  const xcb_window_t id = client_.create({.title = "Settings", .color = red});
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
    EXPECT_TRUE(client.waitFor([&] { return client.skips(own) == 2; }));
  });
  EXPECT_EQ(client_.skips(id), 0);
  client_.destroy(id);
  EXPECT_TRUE(closings.waitFor({id}));
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
  struct Case {
    std::optional<std::string> display;
    std::optional<std::string> wayland;
    std::string text;
  };
  const std::string nowhere = ":4711";
  for (const auto& [display, wayland, text] :
       {Case{{}, {}, "DISPLAY is not set"},
        Case{"", "wayland-0", "this Wayland session has no X server (Xwayland)"},
        Case{nowhere, {}, "no X server at display ':4711': Connection refused"},
        Case{"nonsense", {}, "no X server at display 'nonsense': Invalid argument"}}) {
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

TEST(WindowSystem, WorksWithoutAWindowManager) {
  const test::XServer server;
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
  EXPECT_TRUE(client.waitFor([&] { return client.skips(id) == 2; }));
  client.map(id);
  client.unmap(id);
  EXPECT_TRUE(closings.waitFor({id}));
  EXPECT_EQ(log.count("There is no window manager"), 1U);
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

TEST(WindowSystem, NoticesTheEndOfItsServerByItself) {
  test::XServer server;
  const test::CapturedLog log;
  const auto system = WindowSystemLinux::make();
  const Closings closings(*system);
  server.end();
  EXPECT_TRUE(test::eventually([&] { return log.has("the X server is gone"); }));
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
