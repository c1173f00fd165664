#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Platform/Bundle.h"
#include "Velum/Platform/Linux/Processes/ControlGroup.h"
#include "Velum/Platform/Linux/Processes/ProcessStatus.h"
#include "Velum/Platform/Linux/Workspace/LaunchLock.h"

namespace velum {

/// What a table is read from, kept open from one to the next.
struct ProcessSources {
  ProcessList processes;
  DesktopGroups desktop;
  LaunchFolder launches;
};

/// The processes at one moment, and which applications they are. Taking it costs one system call
/// and about 1.5 us per process; a process is looked at more closely only when its identifier is
/// asked for and its program's path or its control group may be an application's. Not thread-safe.
///
/// A process is an application of this user when, in this order,
///   - an opener of ours recorded that it started it for a bundle,
///   - its program is the main program of a bundle, it has this user's rights, and it is not one
///     of that application's own children (a copy made by fork, or the same program started by
///     itself),
///   - it leads the control group that the desktop made for an application.
/// What can't be asked any further, although the process is there, counts as one: to open an
/// application twice is worse than to leave it to its user.
class ProcessTable {
 public:
  /// `leaving` are the ids of applications that are about to end: what is left of their sessions
  /// and process groups once they are gone is not an application either.
  /// `sources` must outlive the table.
  ProcessTable(std::vector<pid_t> leaving, ProcessSources& sources);

  /// In ascending order; processes that ended are left out, and so are those whose program this
  /// user may not know, unless their launch is on record or the desktop knows them.
  const std::vector<pid_t>& ids() const noexcept { return ids_; }

  /// Looked up once per process.
  std::optional<std::string> bundleIdentifier(pid_t pid);

  /// A process other than the leaving ones that is an instance of `bundle`, whose canonical path
  /// is `canonicalPath`.
  std::optional<pid_t> instanceOf(const Bundle& bundle, const std::string& canonicalPath);

  /// Whether the table was taken after that launch was recorded.
  bool knows(const LaunchRecord& record) const;

 private:
  void add(pid_t pid, std::optional<std::string_view> executable);
  bool isKnown(pid_t pid) const;
  bool mayBeOfDesktop(pid_t pid) const;
  std::optional<std::string> findIdentifier(pid_t pid) const;
  const LaunchRecord* liveRecord(pid_t pid) const;
  /// The bundle whose main program the process runs.
  std::optional<Bundle> bundleOf(pid_t pid) const;
  bool isChildOfApplication(pid_t pid, const std::string& executable) const;
  static std::optional<std::string> desktopIdentifier(pid_t pid);

  std::vector<pid_t> leaving_;
  uid_t user_;
  std::vector<pid_t> ids_;
  std::map<pid_t, std::string> programs_;  // of those that may be bundles' main ones
  std::map<pid_t, LaunchRecord> records_;
  std::optional<std::vector<pid_t>> ofDesktop_;  // in ascending order; nothing when all may be
  std::map<pid_t, std::optional<std::string>> identifiers_;  // of those that took a closer look
};

}  // namespace velum
