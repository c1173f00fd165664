#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Platform/Bundle.h"
#include "Velum/Platform/Linux/LaunchLockLinux.h"

namespace velum {

/// The processes at one moment, and which applications they are. Taking it costs about 2 us per
/// process of this user; a process is looked at more closely only when its identifier is asked
/// for. Not thread-safe.
///
/// A process is an application when, in this order,
///   - an opener of ours recorded that it started it for a bundle,
///   - its program is the main program of a bundle, and it is not one of that application's own
///     children (a copy made by fork, or the same program started by itself),
///   - it leads the control group that the desktop made for an application.
class ProcessTable {
 public:
  /// `leaving` are the ids of applications that are about to end: what is left of their sessions
  /// and process groups once they are gone is not an application either.
  explicit ProcessTable(std::vector<pid_t> leaving);

  /// In ascending order; processes that ended are left out, and so are those whose program this
  /// user may not know, unless their launch is on record.
  std::vector<pid_t> ids() const;

  /// Looked up once per process.
  std::optional<std::string> bundleIdentifier(pid_t pid);

  /// A process other than the leaving ones that is an instance of `bundle`, whose canonical path
  /// is `canonicalPath`.
  std::optional<pid_t> instanceOf(const Bundle& bundle, const std::string& canonicalPath);

 private:
  std::optional<std::string> findIdentifier(pid_t pid) const;
  const LaunchRecord* liveRecord(pid_t pid) const;
  /// The bundle whose main program the process runs.
  std::optional<Bundle> bundleOf(pid_t pid) const;
  bool isChildOfApplication(pid_t pid, const std::string& executable) const;
  static std::optional<std::string> desktopIdentifier(pid_t pid);

  std::vector<pid_t> leaving_;
  bool hasDesktopGroups_;
  std::map<pid_t, std::string> executables_;  // by process
  std::map<pid_t, LaunchRecord> records_;
  std::map<pid_t, std::optional<std::string>> identifiers_;  // of those that were asked for
};

}  // namespace velum
