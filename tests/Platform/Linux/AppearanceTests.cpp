#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Velum/Platform/Linux/Windows/Appearance.h"
#include "Velum/Platform/WindowSystem.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/SecretService.h"

namespace velum {
namespace {

using test::ScopedVariable;

/// The settings portal of a desktop, on a bus of the test's own.
class SettingsPortal {
 public:
  explicit SettingsPortal(const test::PrivateBus& bus) : bus_(bus.connect()) {
    static const std::array<sd_bus_vtable, 3> table{
        {SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Read", "ss", "v", &SettingsPortal::read, 0),
         SD_BUS_VTABLE_END}};
    EXPECT_GE(sd_bus_add_object_vtable(bus_.get(), nullptr, "/org/freedesktop/portal/desktop",
                                       "org.freedesktop.portal.Settings", table.data(), this),
              0);
    EXPECT_GE(sd_bus_request_name(bus_.get(), "org.freedesktop.portal.Desktop", 0), 0);
    thread_ = std::thread([this] {
      while (!isEnding_) {
        if (sd_bus_process(bus_.get(), nullptr) == 0) sd_bus_wait(bus_.get(), 10'000);
      }
    });
  }
  SettingsPortal(const SettingsPortal&) = delete;
  SettingsPortal& operator=(const SettingsPortal&) = delete;
  ~SettingsPortal() {
    isEnding_ = true;
    thread_.join();
  }

  enum : int { silent = -1, unknown = -2, misplaced = -3 };
  std::atomic<int> scheme{0};

 private:
  static int read(sd_bus_message* call, void* context, sd_bus_error* error) {
    const int scheme = static_cast<SettingsPortal*>(context)->scheme;
    const char* space = nullptr;
    const char* key = nullptr;
    sd_bus_message_read(call, "ss", &space, &key);
    EXPECT_STREQ(space, "org.freedesktop.appearance");
    EXPECT_STREQ(key, "color-scheme");
    if (scheme == silent) return 1;
    if (scheme == unknown) {
      return sd_bus_error_set(error, "org.freedesktop.portal.Error.NotFound", "not found");
    }
    if (scheme == misplaced) return sd_bus_reply_method_return(call, "v", "s", "prefer-dark");
    return sd_bus_reply_method_return(call, "v", "v", "u", static_cast<std::uint32_t>(scheme));
  }

  test::BusPointer bus_;
  std::atomic<bool> isEnding_{false};
  std::thread thread_;
};

class Appearance : public ::testing::Test {
 protected:
  void writeSettings(const std::string& text) const {
    test::writeFile(environment_.folder() + "/.config/gtk-3.0/settings.ini", "[Settings]\n" + text);
  }
  static bool isDark() { return WindowSystem::shared().isDarkMode(); }

  test::SecretEnvironment environment_;
  ScopedVariable config_{"XDG_CONFIG_HOME", std::nullopt};
  ScopedVariable theme_{"GTK_THEME", std::nullopt};
};

TEST_F(Appearance, FollowsTheThemeWhereThereIsNoPortal) {
  EXPECT_FALSE(isDark());
  for (const char* settings : {"gtk-theme-name = Arc-Dark\r\n#gtk-theme-name=Arc\n",
                               "gtk-theme-name=Arc\ngtk-application-prefer-dark-theme=1"}) {
    writeSettings(settings);
    EXPECT_TRUE(isDark()) << settings;
  }
  for (const char* light : {"Adwaita", "Arc-Darker", "Darkness"}) {
    const ScopedVariable theme("GTK_THEME", light);  // comes before the file
    EXPECT_FALSE(isDark()) << light;
  }
  writeSettings("gtk-theme-name=Arc\ngtk-application-prefer-dark-theme=0\n==\n");
  EXPECT_FALSE(isDark());
  for (const char* dark : {"Adwaita-dark", "Adwaita:dark", "Yaru-Dark-compact", "dark"}) {
    const ScopedVariable theme("GTK_THEME", dark);
    EXPECT_TRUE(isDark()) << dark;
  }
}

TEST_F(Appearance, FollowsTheDesktopsPortal) {
  const test::PrivateBus bus(environment_.folder());
  const ScopedVariable darkTheme("GTK_THEME", "Adwaita-dark");
  EXPECT_TRUE(isDark()) << "a bus without a portal";

  SettingsPortal portal(bus);
  portal.scheme = 2;
  EXPECT_FALSE(isDark());
  {
    const ScopedVariable lightTheme("GTK_THEME", "Adwaita");
    portal.scheme = 1;
    EXPECT_TRUE(isDark());
    portal.scheme = 0;
    EXPECT_FALSE(isDark()) << "no preference: the theme decides";
  }
  const test::CapturedLog log;
  for (const int answer : {SettingsPortal::unknown, SettingsPortal::misplaced}) {
    portal.scheme = answer;
    EXPECT_TRUE(isDark()) << "no answer: the theme decides";
  }
  portal.scheme = SettingsPortal::silent;
  EXPECT_TRUE(prefersDark(std::chrono::milliseconds(50)));
  EXPECT_EQ(log.count("The settings portal does not tell"), 3U);
}

}  // namespace
}  // namespace velum
