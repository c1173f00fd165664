#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/Progress.h"
#include "Velum/Logger/LogSaving.h"

namespace velum {

/// Turns the log that FileLogHandlers write into files for support: one file with the whole log,
/// or one per subsystem, restricted to dates. The log is the live file and its rotated
/// predecessor; both are taken at one moment, under the lock that every writer takes, so that no
/// record is cut and none is missing between them.
///
/// Runs on the caller's thread, any thread. Fails with SystemError; what stands in the target
/// folder is then as it was but for files already finished, and nothing temporary is left. What is
/// saved may be read by nobody who may not read the log, and never replaces a file of the log:
/// that is EEXIST. While another process holds the log's lock, all of this waits, logs what it
/// waits for after a second, and fails with ETIMEDOUT after half a minute.
class FileLogManager {
 public:
  /// `logPath` is the live file; it need not exist yet.
  explicit FileLogManager(std::string logPath) : logPath_(std::move(logPath)) {}

  /// Saves into `folder`, replacing files of the same names, and returns the paths of the files.
  /// `whole` without dates makes one file (see saveWholeLog); anything else makes
  /// "<subsystem>.log" for each admitted subsystem that has records in the range. Cancelling
  /// `progress` ends it at its next step, or while it waits, with ECANCELED.
  std::vector<std::string> saveLogs(const LogSubsystemSelector& selector, const std::string& folder,
                                    const LogSavingOpts& opts,
                                    const Progress* progress = nullptr) const;

  /// Saves the newest `maxSize` bytes of the log, the rotated file's before the live file's, into
  /// one file with the live file's name. A piece that is not a whole file begins with a record,
  /// unless its first 1 MiB holds no record separator. Returns the file's path.
  std::string saveWholeLog(const std::string& folder,
                           std::optional<std::int64_t> maxSize = std::nullopt,
                           const Progress* progress = nullptr) const;

  /// Empties the log: the rotated file is removed, and then the live one emptied, in which one
  /// record says so. Processes that have the log open go on writing into it.
  void resetLog();

  /// True for a path at which a file of the log stands, or would stand, by whatever name. Throws
  /// SystemError where that can't be told.
  bool holds(const std::string& path) const;

 private:
  /// A file of the log, newest first in lists.
  struct TempFile {
    std::string path;
    std::int64_t size;
    std::int64_t bytesBefore;  ///< The sizes of the newer files together.
  };

  std::vector<std::string> duplicateLogFiles(const std::string& folder,
                                             const Progress* progress) const;
  std::vector<TempFile> prepareTempFiles(const std::string& folder,
                                         std::optional<std::int64_t> maxSize,
                                         const Progress* progress) const;
  static std::vector<std::string> doSaveLogs(std::vector<TempFile> files,
                                             const LogSubsystemSelector& selector,
                                             const std::string& folder, const LogSavingOpts& opts);

  std::string logPath_;
};

/// Copies the first `maxSize` bytes of a file, or the last -`maxSize` where that is negative, to
/// another file or to its end. With `seekSeparator` a copy that does not begin with the file
/// begins with the first record separator in the first 1 MiB of the part, if there is one.
/// A whole file that is not appended is cloned; a new one may be read by nobody who may not read
/// the source. Throws SystemError.
void copyfile(const std::string& source, const std::string& destination, bool append,
              std::int64_t maxSize, bool seekSeparator);

}  // namespace velum
