#include "Velum/Platform/Linux/ProcessTableLinux.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "Velum/Platform/Linux/ControlGroupLinux.h"
#include "Velum/Platform/Linux/ProcessLinux.h"

namespace velum {
namespace {

bool contains(const std::vector<pid_t>& pids, pid_t pid) {
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

bool isSameFolder(const std::string& path, const std::string& canonicalPath) {
  std::error_code error;
  return std::filesystem::canonical(path, error).native() == canonicalPath;
}

/// True when a service manager serves this user: then a desktop may give applications control
/// groups of their own.
bool hasUserManager() {
  constexpr const char* socket = "/systemd/private";
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  if (folder != nullptr && ::access((std::string(folder) + socket).c_str(), F_OK) == 0) return true;
  return ::access(fmt::format("/run/user/{}{}", ::geteuid(), socket).c_str(), F_OK) == 0;
}

}  // namespace

ProcessTable::ProcessTable(std::vector<pid_t> leaving)
    : leaving_(std::move(leaving)), hasDesktopGroups_(hasUserManager()) {
  for (LaunchRecord& record : LaunchLock::allRecords()) {
    if (record.isAlive()) records_.insert_or_assign(record.process, std::move(record));
  }
  // A process that ended has no program any more, which costs a third of reading its state.
  for (const pid_t pid : processIds()) {
    if (auto executable = executableOf(pid)) {
      executables_.emplace_hint(executables_.end(), pid, std::move(*executable));
    } else if (records_.contains(pid)) {
      executables_.emplace_hint(executables_.end(), pid, std::string());
    }
  }
}

std::vector<pid_t> ProcessTable::ids() const {
  std::vector<pid_t> ids;
  ids.reserve(executables_.size());
  for (const auto& [pid, executable] : executables_) ids.push_back(pid);
  return ids;
}

std::optional<std::string> ProcessTable::bundleIdentifier(pid_t pid) {
  const auto [known, isNew] = identifiers_.try_emplace(pid);
  if (isNew) known->second = findIdentifier(pid);
  return known->second;
}

std::optional<std::string> ProcessTable::findIdentifier(pid_t pid) const {
  if (!executables_.contains(pid)) return std::nullopt;
  if (const LaunchRecord* record = liveRecord(pid)) {
    if (!record->identifier.empty()) return record->identifier;
  }
  if (const auto bundle = bundleOf(pid)) return bundle->identifier;
  // Costs 7 us, three times as much as all else that is asked of most processes.
  return hasDesktopGroups_ ? desktopIdentifier(pid) : std::nullopt;
}

std::optional<pid_t> ProcessTable::instanceOf(const Bundle& bundle,
                                              const std::string& canonicalPath) {
  for (const auto& [pid, executable] : executables_) {
    if (contains(leaving_, pid)) continue;
    const LaunchRecord* record = liveRecord(pid);
    if (record != nullptr && record->path == canonicalPath) return pid;
    if (bundle.identifier) {
      if (bundleIdentifier(pid) == bundle.identifier) return pid;
    } else if (const auto own = bundleOf(pid); own && isSameFolder(own->path, canonicalPath)) {
      return pid;
    }
  }
  return std::nullopt;
}

const LaunchRecord* ProcessTable::liveRecord(pid_t pid) const {
  const auto found = records_.find(pid);
  return found == records_.end() ? nullptr : &found->second;
}

std::optional<Bundle> ProcessTable::bundleOf(pid_t pid) const {
  const std::string& executable = executables_.at(pid);
  if (executable.empty()) return std::nullopt;
  std::optional<Bundle> bundle = Bundle::ofExecutable(executable);
  if (bundle && isChildOfApplication(pid, executable)) return std::nullopt;
  return bundle;
}

bool ProcessTable::isChildOfApplication(pid_t pid, const std::string& executable) const {
  const std::optional<ProcessStatus> status = ProcessStatus::of(pid);
  if (!status || status->isForkedCopy()) return true;
  if (contains(leaving_, pid)) return false;
  if (contains(leaving_, status->session) || contains(leaving_, status->group)) return true;
  const auto parent = executables_.find(status->parent);
  return parent != executables_.end() && parent->second == executable;
}

std::optional<std::string> ProcessTable::desktopIdentifier(pid_t pid) {
  const std::optional<std::string> group = controlGroupOf(pid);
  if (!group) return std::nullopt;
  if (auto identifier = applicationOfScope(*group, pid)) return identifier;
  auto identifier = applicationOfService(*group);
  if (!identifier) return std::nullopt;
  const std::optional<ProcessStatus> status = ProcessStatus::of(pid);
  return status && isUserManager(status->parent) ? identifier : std::nullopt;
}

}  // namespace velum
