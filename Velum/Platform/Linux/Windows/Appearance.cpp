#include "Velum/Platform/Linux/Windows/Appearance.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"
#include "Velum/Platform/Linux/Processes/UserBus.h"

namespace velum {
namespace {

constexpr BusInterface settings{"org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                                "org.freedesktop.portal.Settings"};

/// The number inside; Read wraps it twice.
std::uint32_t unwrapped(sd_bus_message* message) {
  constexpr const char* what = "the color scheme";
  char type = '\0';
  const char* contents = nullptr;
  for (;;) {
    checkBus(sd_bus_message_peek_type(message, &type, &contents), what);
    if (type != SD_BUS_TYPE_VARIANT) break;
    checkBus(sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents), what);
  }
  std::uint32_t number = 0;
  checkBus(sd_bus_message_read(message, "u", &number), what);
  return number;
}

std::uint32_t colorScheme(std::chrono::microseconds timeout) {
  UserBus bus(timeout);
  const BusMessage request = bus.request(settings, "Read", true);
  checkBus(sd_bus_message_append(request.get(), "ss", "org.freedesktop.appearance", "color-scheme"),
           "Read");
  return unwrapped(bus.call(request).get());
}

/// Nothing when nobody knows, or the user does not care.
std::optional<bool> portalPrefersDark(std::chrono::microseconds timeout) {
  constexpr std::uint32_t dark = 1;
  constexpr std::uint32_t light = 2;
  if (!userBusAddress()) return std::nullopt;
  try {
    const std::uint32_t scheme = colorScheme(timeout);
    if (scheme == dark || scheme == light) return scheme == dark;
  } catch (const SystemError& error) {
    logDebug({"Velum/WindowSystem", "isDarkMode"}, "The settings portal does not tell: {}",
             error.what());
  }
  return std::nullopt;
}

/// The last value of a key in a settings file of GTK, which has one group.
std::string_view settingsValue(std::string_view text, std::string_view key) {
  std::string_view value;
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size());
    const auto line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const auto equals = line.find('=');
    if (equals == std::string_view::npos || trimmed(line.substr(0, equals)) != key) continue;
    value = trimmed(line.substr(equals + 1));
  }
  return value;
}

/// True for "Adwaita-dark", "Yaru-Dark-compact" and GTK_THEME's "Adwaita:dark", not for
/// "Arc-Darker", which is light.
bool isDarkTheme(std::string_view theme) {
  std::string word;
  for (const char c : std::string(theme) + ' ') {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0) {
      word += static_cast<char>(std::tolower(byte));
    } else if (word == "dark") {
      return true;
    } else {
      word.clear();
    }
  }
  return false;
}

bool themeIsDark() {
  constexpr std::size_t maximumSize = std::size_t{1} << 20U;
  const char* const theme = std::getenv("GTK_THEME");
  if (theme != nullptr && *theme != '\0') return isDarkTheme(theme);
  const auto folder = userFolder("XDG_CONFIG_HOME", ".config");
  if (!folder) return false;
  const auto text = readRegularFile(*folder + "/gtk-3.0/settings.ini", maximumSize);
  if (!text) return false;
  const auto prefersDark = settingsValue(*text, "gtk-application-prefer-dark-theme");
  if (prefersDark == "1" || prefersDark == "true") return true;
  return isDarkTheme(settingsValue(*text, "gtk-theme-name"));
}

}  // namespace

bool prefersDark(std::chrono::microseconds timeout) {
  const auto preference = portalPrefersDark(timeout);
  return preference ? *preference : themeIsDark();
}

}  // namespace velum
