#include "Velum/Platform/Linux/Processes/ControlGroup.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <memory>

#include "Velum/Platform/Linux/Files/XdgFolders.h"
#include "Velum/Platform/Linux/Processes/ProcessStatus.h"

namespace velum {
namespace {

constexpr std::string_view prefix = "app-";

std::string_view unitName(std::string_view group) {
  return group.substr(group.rfind('/') + 1);
}

bool removeSuffix(std::string_view& text, std::string_view suffix) {
  if (!text.ends_with(suffix)) return false;
  text.remove_suffix(suffix.size());
  return true;
}

std::string unescaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::uint8_t byte = 0;
    if (text.size() >= 4 && text.starts_with("\\x") &&
        std::from_chars(text.data() + 2, text.data() + 4, byte, 16).ptr == text.data() + 4) {
      result += static_cast<char>(byte);
      text.remove_prefix(4);
    } else {
      result += text.front();
      text.remove_prefix(1);
    }
  }
  return result;
}

// Letters are those of ASCII, whatever the locale.
bool isPlain(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == ':' || byte == '_' || byte == '.';
}

std::string escaped(std::string_view text) {
  std::string result;
  for (const char byte : text) {
    const bool isHidden = result.empty() && byte == '.';
    if (isPlain(byte) && !isHidden) {
      result += byte;
    } else {
      result += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
  }
  return result;
}

/// The identifier at the end of "app[-<launcher>]-<identifier>".
std::optional<std::string> identifierAtEnd(std::string_view name) {
  if (!name.starts_with(prefix)) return std::nullopt;
  const std::string_view identifier = name.substr(name.rfind('-') + 1);
  if (identifier.empty()) return std::nullopt;
  return unescaped(identifier);
}

/// True when a service manager serves this user: then a desktop may give applications control
/// groups of their own.
bool hasUserManager() {
  const auto hasSocket = [](const std::string& folder) {
    return ::access((folder + "/systemd/private").c_str(), F_OK) == 0;
  };
  const auto session = sessionFolder();
  return (session && hasSocket(*session)) || hasSocket(usualSessionFolder());
}

/// Appends the processes of a control group; false when they can't be read.
bool appendMembers(const std::string& group, std::vector<pid_t>& members) {
  const UniqueFd file(::open((group + "/cgroup.procs").c_str(), O_RDONLY | O_CLOEXEC));
  // A group that went away meanwhile has none.
  if (!file) return errno == ENOENT;
  std::string text;
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t size =
        retryInterrupted([&] { return ::read(file.get(), buffer.data(), buffer.size()); });
    if (size < 0) return errno == ENODEV;
    if (size == 0) break;
    text.append(buffer.data(), static_cast<std::size_t>(size));
  }
  const char* at = text.data();
  const char* const end = at + text.size();
  for (pid_t member = 0; at < end; ++at) {
    const auto [stop, error] = std::from_chars(at, end, member);
    if (error != std::errc{}) return false;
    members.push_back(member);
    at = stop;
  }
  return true;
}

/// Appends the candidates of a slice and of those in it; false when something can't be read.
bool appendCandidates(const std::string& slice, std::vector<pid_t>& candidates) {
  const auto close = [](DIR* folder) { ::closedir(folder); };
  const std::unique_ptr<DIR, decltype(close)> folder(::opendir(slice.c_str()), close);
  if (!folder) return errno == ENOENT;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string_view name(entry->d_name);
    if (name.ends_with(".slice")) {
      if (!appendCandidates(fmt::format("{}/{}", slice, name), candidates)) return false;
    } else if (!name.starts_with(prefix)) {
      continue;
    } else if (name.ends_with(".service")) {
      if (!appendMembers(fmt::format("{}/{}", slice, name), candidates)) return false;
    } else if (name.ends_with(".scope")) {
      pid_t leader = 0;
      const char* const begin = name.data() + name.rfind('-') + 1;
      const auto [stop, error] = std::from_chars(begin, name.data() + name.size(), leader);
      if (error == std::errc{} && *stop == '.') candidates.push_back(leader);
    }
  }
  return true;
}

constexpr std::string_view managerScope = "/init.scope";

/// The folder of the control group `group`, when the manager that it is said to belong to is found
/// there; else nothing.
std::optional<std::string> folderOfManager(const std::string& group) {
  for (const char* mount : {"/sys/fs/cgroup", "/sys/fs/cgroup/systemd", "/sys/fs/cgroup/unified"}) {
    const std::string folder = mount + group;
    std::vector<pid_t> members;
    if (!appendMembers(folder + std::string(managerScope), members)) continue;
    const bool isThere = std::any_of(members.begin(), members.end(), [&](pid_t member) {
      return controlGroupOf(member) == group + std::string(managerScope);
    });
    if (isThere) return folder;
  }
  return std::nullopt;
}

/// The group of the user's manager, when the group of one of its processes is `group`.
std::optional<std::string> groupOfManager(const std::optional<std::string>& group,
                                          const std::string& service) {
  if (!group) return std::nullopt;
  const std::size_t at = group->find(service + '/');
  if (at == std::string::npos) return std::nullopt;
  return group->substr(0, at + service.size());
}

}  // namespace

std::optional<std::string> applicationOfScope(std::string_view group, pid_t leader) {
  std::string_view name = unitName(group);
  if (!removeSuffix(name, fmt::format("-{}.scope", leader))) return std::nullopt;
  return identifierAtEnd(name);
}

std::optional<std::string> applicationOfService(std::string_view group) {
  std::string_view name = unitName(group);
  if (!removeSuffix(name, ".service")) return std::nullopt;
  return identifierAtEnd(name.substr(0, name.find('@')));
}

void DesktopGroups::learn(const std::vector<pid_t>& processes) {
  folder_.clear();
  if (!hasServiceManager() || !hasUserManager()) return;
  const uid_t user = ::geteuid();
  const std::string service = fmt::format("/user@{}.service", user);
  const auto isFound = [this](const std::optional<std::string>& group) {
    if (group) folder_ = folderOfManager(*group).value_or("");
    return !folder_.empty();
  };
  if (isFound(groupOfManager(controlGroupOf(::getpid()), service))) return;
  if (isFound(fmt::format("/user.slice/user-{}.slice{}", user, service))) return;
  for (const pid_t process : processes) {
    if (isFound(groupOfManager(controlGroupOf(process), service))) return;
  }
}

std::optional<std::vector<pid_t>> DesktopGroups::candidates() {
  std::vector<pid_t> candidates;
  if (!hasServiceManager()) return candidates;
  // A manager that came later, or came again elsewhere, has groups that we don't know.
  if (!folder_.empty() && ::access(folder_.c_str(), F_OK) != 0) folder_.clear();
  if (folder_.empty()) {
    return hasUserManager() ? std::nullopt : std::optional(std::move(candidates));
  }
  if (!appendCandidates(folder_, candidates)) return std::nullopt;
  return candidates;
}

std::string applicationScopeName(std::string_view identifier, pid_t leader) {
  return fmt::format("{}{}-{}.scope", prefix, escaped(identifier), leader);
}

}  // namespace velum
