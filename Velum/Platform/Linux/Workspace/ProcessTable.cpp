#include "Velum/Platform/Linux/Workspace/ProcessTable.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "Velum/Platform/Linux/Workspace/BundleLinux.h"

namespace velum {
namespace {

bool contains(const std::vector<pid_t>& pids, pid_t pid) {
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

bool isSameFolder(const std::string& path, const std::string& canonicalPath) {
  std::error_code error;
  return std::filesystem::canonical(path, error).native() == canonicalPath;
}

/// Root may look into everybody's processes; which applications others run is not its business.
bool hasRightsOfOther(pid_t pid, uid_t own) {
  const std::optional<uid_t> user = effectiveUserOf(pid);
  return user ? *user != own : !hasProcess(pid);
}

}  // namespace

ProcessTable::ProcessTable(std::vector<pid_t> leaving, ProcessSources& sources)
    : leaving_(std::move(leaving)), user_(::geteuid()), ofDesktop_(sources.desktop.candidates()) {
  for (LaunchRecord& record : sources.launches.records()) {
    records_.insert_or_assign(record.process, std::move(record));
  }
  if (ofDesktop_) std::sort(ofDesktop_->begin(), ofDesktop_->end());
  const std::vector<pid_t> ids = sources.processes.ids();
  ids_.reserve(ids.size());
  for (const pid_t pid : ids) add(pid, sources.processes.executableOf(pid));
}

/// A process that ended has no program any more, which costs a third of reading its state.
void ProcessTable::add(pid_t pid, std::optional<std::string_view> executable) {
  if (!executable) {
    const bool isOnRecord = liveRecord(pid) != nullptr;
    if (!isOnRecord && !(ofDesktop_ && mayBeOfDesktop(pid))) return;
    const std::optional<ProcessStatus> status = ProcessStatus::of(pid);
    if (status && !status->isAlive()) return;
  } else if (isInProgramFolder(*executable)) {
    programs_.emplace_hint(programs_.end(), pid, *executable);
  }
  ids_.push_back(pid);
}

bool ProcessTable::isKnown(pid_t pid) const {
  return std::binary_search(ids_.begin(), ids_.end(), pid);
}

bool ProcessTable::mayBeOfDesktop(pid_t pid) const {
  return !ofDesktop_ || std::binary_search(ofDesktop_->begin(), ofDesktop_->end(), pid);
}

bool ProcessTable::knows(const LaunchRecord& record) const {
  const auto found = records_.find(record.process);
  return found != records_.end() && found->second == record;
}

std::optional<std::string> ProcessTable::bundleIdentifier(pid_t pid) {
  if (!programs_.contains(pid) && !records_.contains(pid) && !mayBeOfDesktop(pid)) return {};
  const auto [known, isNew] = identifiers_.try_emplace(pid);
  if (isNew) known->second = findIdentifier(pid);
  return known->second;
}

std::optional<std::string> ProcessTable::findIdentifier(pid_t pid) const {
  if (!isKnown(pid)) return std::nullopt;
  if (const LaunchRecord* record = liveRecord(pid)) {
    if (!record->identifier.empty()) return record->identifier;
  }
  if (const auto bundle = bundleOf(pid)) return bundle->identifier;
  return mayBeOfDesktop(pid) ? desktopIdentifier(pid) : std::nullopt;
}

std::optional<pid_t> ProcessTable::instanceOf(const Bundle& bundle,
                                              const std::string& canonicalPath) {
  for (const pid_t pid : ids_) {
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
  return found == records_.end() || !found->second.isAlive() ? nullptr : &found->second;
}

std::optional<Bundle> ProcessTable::bundleOf(pid_t pid) const {
  const auto program = programs_.find(pid);
  if (program == programs_.end()) return std::nullopt;
  std::optional<Bundle> bundle = Bundle::ofExecutable(program->second);
  const bool isTheirs = bundle && hasRightsOfOther(pid, user_);
  if (!bundle || isTheirs || isChildOfApplication(pid, program->second)) return std::nullopt;
  return bundle;
}

bool ProcessTable::isChildOfApplication(pid_t pid, const std::string& executable) const {
  const std::optional<ProcessStatus> status = ProcessStatus::of(pid);
  if (!status) return !hasProcess(pid);
  if (status->isForkedCopy()) return true;
  if (contains(leaving_, pid)) return false;
  if (contains(leaving_, status->session) || contains(leaving_, status->group)) return true;
  const auto parent = programs_.find(status->parent);
  return parent != programs_.end() && parent->second == executable;
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
