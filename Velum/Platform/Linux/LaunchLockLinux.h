#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {

/// The process that an opener of ours started for a bundle. Names it even where the program it
/// runs does not (a script runs its interpreter).
struct LaunchRecord {
  pid_t process = 0;
  std::uint64_t startTime = 0;  ///< Tells the process from a later one with the same id.
  std::string path;             ///< Canonical path of the bundle.
  std::string identifier;       ///< Empty when the bundle has none.

  bool isAlive() const;
};

/// Serialises the openers of one bundle, across the processes of a user. The lock file stands in
/// the user's runtime folder, stays there, and holds the record of the last launch. Without a
/// runtime folder there is no lock: everything succeeds and nothing is recorded.
class LaunchLock {
 public:
  /// Opens the lock file of the bundle; does not lock.
  explicit LaunchLock(std::string canonicalPath);
  LaunchLock(const LaunchLock&) = delete;
  LaunchLock& operator=(const LaunchLock&) = delete;
  ~LaunchLock() { release(); }

  /// False when somebody else holds the lock.
  bool tryAcquire() noexcept;
  /// Waits for it, on any thread.
  void acquire() noexcept;
  void release() noexcept;

  /// The last launch of this bundle. Call with the lock held, like `setRecord`.
  std::optional<LaunchRecord> record() const;
  /// `path` is filled in here. A failed write leaves no record.
  void setRecord(LaunchRecord record);

  /// The last launches of all bundles.
  static std::vector<LaunchRecord> allRecords();

 private:
  std::string path_;
  UniqueFd file_;
};

}  // namespace velum
