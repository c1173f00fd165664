#include "vpn_relauncher/Locations.h"

#include <filesystem>

#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view sourceFile = "vpn_relauncher/Locations";

std::string joined(const std::string& folder, std::string_view name) {
  return (fs::path(folder) / name).string();
}

std::string filePath(const std::optional<std::string>& folder, std::string_view name) {
  return folder ? joined(*folder, name) : std::string{};
}

}  // namespace

Locations& Locations::shared() {
  static NeverDestroyed<Locations> instance;
  return *instance;
}

const std::optional<std::string>& Locations::appGroupDirectory() {
  return appGroupDirectory_.get([this]() -> std::optional<std::string> {
    const auto container = directories_.groupContainer(std::string(applicationGroup));
    if (!container) {
      logError({sourceFile, "appGroupDirectory"}, "Failed to get app group directory");
      return std::nullopt;
    }
    return create(*container, "App Group");
  });
}

const std::optional<std::string>& Locations::groupLogsDirectory() {
  return groupLogsDirectory_.get([this]() -> std::optional<std::string> {
    const auto& group = appGroupDirectory();
    if (!group) {
      logError({sourceFile, "groupLogsDirectory"}, "Failed to get group logs directory");
      return std::nullopt;
    }
    return create(joined(*group, groupLogsSubpath), "App Group Logs");
  });
}

const std::optional<std::string>& Locations::sharedLogsDirectory() {
  return sharedLogsDirectory_.get([this]() -> std::optional<std::string> {
    const auto library = directories_.localLibrary();
    if (!library) return std::nullopt;
    return create(joined(*library, sharedLogsSubpath), "Shared Logs", sharedLogsPermissions);
  });
}

const std::string& Locations::groupLogFilePath() {
  return groupLogFilePath_.get([this] { return filePath(groupLogsDirectory(), groupLogFileName); });
}

const std::string& Locations::sharedLogFilePath() {
  return sharedLogFilePath_.get(
      [this] { return filePath(sharedLogsDirectory(), sharedLogFileName); });
}

std::optional<std::string> Locations::create(const std::string& path, std::string_view title,
                                             std::optional<mode_t> permissions) {
  std::error_code error;
  if (fs::exists(path, error)) return path;
  fs::create_directories(path, error);
  if (!error && permissions) fs::permissions(path, static_cast<fs::perms>(*permissions), error);
  if (!error) return path;
  logError({sourceFile, "create(url:title:attr:)"},
           "Cannot create {} directory ({}) with error: {}", title, path,
           systemErrorText(error.value()));
  return std::nullopt;
}

}  // namespace velum
