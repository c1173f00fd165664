#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Files/FileIdentity.h"
#include "Velum/Files/FileLock.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {

/// The process that an opener of ours started for a bundle. Names it even where the program it
/// runs does not (a script runs its interpreter).
struct LaunchRecord {
  pid_t process = 0;
  std::uint64_t startTime = 0;  ///< Tells the process from a later one with the same id.
  std::string path;             ///< Canonical path of the bundle.
  std::string identifier;       ///< Empty when the bundle has none.

  bool isAlive() const;
  bool operator==(const LaunchRecord&) const = default;
};

/// The folder of the lock files below the user's runtime folder, kept open. One thread.
class LaunchFolder {
 public:
  /// The last launches of all applications, whether or not they still run.
  std::vector<LaunchRecord> records();

  /// Opens the lock file of the application that `key` stands for and makes it where there is
  /// none. Where that fails, says why in `problem`.
  UniqueFd lockFile(const std::string& key, std::string& problem);

  /// Whether the folder is there; opens it.
  bool open();

 private:
  struct Closer {
    void operator()(DIR* folder) const noexcept { ::closedir(folder); }
  };

  bool isCurrent() const noexcept;

  std::string path_;
  std::unique_ptr<DIR, Closer> folder_;
  std::optional<FileIdentity> identity_;  // of the folder
  unsigned generation_ = 0;  // of the process: a forked child would share our place in the folder
};

/// Serialises the openers of one application, across the processes of a user: copies of a bundle
/// that bear one identifier are one application. The lock file stays where it is and holds the
/// record of the last launch. Without a runtime folder there is no lock: everything succeeds and
/// nothing is recorded. Whoever holds it may be stopped or hung, so nobody waits for ever.
class LaunchLock {
 public:
  /// Opens the lock file; does not lock. An application without an identifier is its bundle.
  LaunchLock(LaunchFolder& folder, const std::optional<std::string>& identifier,
             const std::string& canonicalPath);
  LaunchLock(const LaunchLock&) = delete;
  LaunchLock& operator=(const LaunchLock&) = delete;
  ~LaunchLock() { release(); }

  /// False when somebody else holds the lock.
  bool tryAcquire() noexcept;
  /// Goes on without the lock, which somebody else keeps: that is then the problem.
  void giveUp();
  void release() noexcept;

  /// The last launch. Call with the lock held or given up, like `setRecord`.
  std::optional<LaunchRecord> record() const;
  /// A failed write leaves no record.
  void setRecord(const LaunchRecord& record);

  /// Why there is no lock or no record, for people; empty when all is well.
  const std::string& problem() const noexcept { return problem_; }

 private:
  std::string problem_;
  UniqueFd file_;
  std::optional<FileLock> lock_;  // released before the file is closed
};

}  // namespace velum
