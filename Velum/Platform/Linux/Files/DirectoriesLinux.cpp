#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <vector>

#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Platform/Directories.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"

namespace velum {
namespace {

constexpr const char* localLibraryPath = "/var/local/Library";

std::optional<std::string> homeFromUserDatabase() {
  std::vector<char> buffer(1024);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (found == nullptr || entry.pw_dir == nullptr || *entry.pw_dir != '/') return std::nullopt;
    return entry.pw_dir;
  }
}

/// A folder of this user's at `path` itself, not where a link there leads.
bool isOwnFolder(const std::string& path, struct stat& status) {
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == ::geteuid();
}

/// Somebody else may have put a folder or a link at a path that everyone can write: whatever
/// stands there must be ours and closed to others.
std::optional<std::string> privateFolder(std::string path) {
  constexpr mode_t ownerOnly = 0700;
  if (::mkdir(path.c_str(), ownerOnly) != 0 && errno != EEXIST) return std::nullopt;
  struct stat status {};
  if (!isOwnFolder(path, status) || (status.st_mode & 0777U) != ownerOnly) return std::nullopt;
  return path;
}

class DirectoriesLinux final : public Directories {
 public:
  /// $XDG_DATA_HOME/<groupIdentifier>, by default below ~/.local/share.
  std::optional<std::string> groupContainer(const std::string& groupIdentifier) override {
    if (!isFileName(groupIdentifier)) return std::nullopt;
    const auto data = userFolder("XDG_DATA_HOME", ".local/share");
    if (!data) return std::nullopt;
    return *data + '/' + groupIdentifier;
  }

  std::optional<std::string> localLibrary() override {
    std::error_code error;
    std::filesystem::create_directories(localLibraryPath, error);
    if (!std::filesystem::is_directory(localLibraryPath, error)) return std::nullopt;
    return localLibraryPath;
  }

  /// "velum" in the folder for the time of the login, else in the temporary folder with the user id
  /// in its name.
  std::optional<std::string> runtime() override {
    if (const auto session = sessionFolder()) return privateFolder(*session + "/velum");
    const std::string temporary = absoluteVariable("TMPDIR").value_or("/tmp");
    return privateFolder(temporary + "/velum-" + std::to_string(::geteuid()));
  }
};

}  // namespace

std::optional<std::string> homeFolder() {
  auto home = absoluteVariable("HOME");
  return home ? home : homeFromUserDatabase();
}

std::optional<std::string> userFolder(const char* variable, std::string_view belowHome) {
  if (auto folder = absoluteVariable(variable)) return folder;
  auto home = homeFolder();
  if (!home) return std::nullopt;
  return home->append("/").append(belowHome);
}

std::string usualSessionFolder() {
  return "/run/user/" + std::to_string(::geteuid());
}

std::optional<std::string> sessionFolder() {
  auto named = absoluteVariable("XDG_RUNTIME_DIR");
  struct stat status {};
  if (named && isOwnFolder(*named, status)) return named;
  auto usual = usualSessionFolder();
  if (isOwnFolder(usual, status)) return usual;
  return std::nullopt;
}

Directories& Directories::shared() {
  static NeverDestroyed<DirectoriesLinux> instance;
  return *instance;
}

}  // namespace velum
