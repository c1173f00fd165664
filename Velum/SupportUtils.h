#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Velum/Base/Progress.h"
#include "Velum/Logger/LogHandler.h"
#include "Velum/Logger/LogManager.h"
#include "Velum/Logger/LogSaving.h"
#include "Velum/Platform/Workspace.h"

namespace velum {

/// What an archive is made for; decides how much of the log goes into it. The raw values are part
/// of the interface.
enum class SupportLogsPurpose : std::uint8_t {
  report = 0,    ///< Sent with a report: the last two days, at most 30 MiB of each log.
  diagnosis = 1  ///< For one incident: the last day, all of it.
};

/// The purpose with that raw value; any other than 0 and 1 stops the process.
SupportLogsPurpose supportLogsPurpose(int rawValue);

/// The part of the log that goes into an archive made `now`. It ends 60 s later, so that records
/// written meanwhile are in it.
LogSavingOpts logSavingOpts(SupportLogsPurpose purpose, std::optional<LogDate> startDate,
                            LogDate now);

/// Why an archive could not be made, where that is not an error of the system.
class SupportLogArchivingError : public std::runtime_error {
 public:
  enum class Case : std::uint8_t {
    other,
    createTempFolderFailed,
    compressLogFolder,
    cancelled,
    invalidItemType,
    emptyItemName
  };

  SupportLogArchivingError(Case reason, const std::string& text)
      : std::runtime_error(text), reason_(reason) {}
  Case reason() const noexcept { return reason_; }

 private:
  Case reason_;
};

/// A file or folder to be copied into an archive. A symbolic link is followed; links inside a
/// folder are left out, because what they lead to was not asked for.
struct FileUrl {
  std::string path;
};

/// A value of a type that no archive can hold, as a caller from an untyped language may hand it in.
struct UnsupportedItem {
  std::string description;
};

using SupportItem = std::variant<std::string, std::vector<std::uint8_t>, FileUrl, UnsupportedItem>;
/// By relative path in the archive.
using SupportItems = std::map<std::string, SupportItem>;

/// Makes the archive that a user sends to support: a zip file of the saved logs and other items.
class SupportUtils {
 public:
  /// Called once, on a thread of the global queue; null when the archive was made. The exception
  /// is a SupportLogArchivingError or a SystemError.
  using Completion = std::function<void(std::exception_ptr error)>;

  /// What of the process the work uses; the defaults are the real ones. They must outlive it.
  struct Services {
    LogManagerProtocol* logManager = &LogManager::shared();
    Workspace* workspace = nullptr;  ///< The shared one, which is asked for only when needed.
    /// How long the file viewer may take before the work is called complete without it.
    std::chrono::milliseconds revealTimeout = std::chrono::seconds(5);
  };

  /// Makes the archive at `destination`, replacing what is there, in the background. Units of the
  /// progress are the logs, each item and the packing. Cancelling ends the copying of files and the
  /// packing at once, else the work at its next step, with the error `cancelled`. On failure what
  /// is at `destination` stays, and in no case is anything temporary left. A relative path that
  /// leaves the archive is SystemError EPERM, one that names what another item or a saved log is
  /// named is EEXIST, and so is a `destination` that is a file of the log. A warning says when no
  /// record of the log was to be saved.
  ///
  /// `startDate` is where the logs begin instead of the purpose's period; with `showInFinder` the
  /// archive is shown in the file viewer at the end.
  static std::shared_ptr<Progress> createArchive(const std::string& destination,
                                                 SupportItems includeItems,
                                                 SupportLogsPurpose purpose,
                                                 std::optional<LogDate> startDate,
                                                 bool showInFinder, Completion completion);
  static std::shared_ptr<Progress> createArchive(const std::string& destination,
                                                 SupportItems includeItems,
                                                 SupportLogsPurpose purpose,
                                                 std::optional<LogDate> startDate,
                                                 bool showInFinder, Completion completion,
                                                 Services services);

  /// Writes one item into the folder of an archive in the making, with the folders above it.
  /// Throws SupportLogArchivingError or SystemError; nothing is written outside the folder, and no
  /// file in it is replaced. A copy ends with ECANCELED when `progress` is cancelled.
  static void saveItem(const SupportItem& value, const std::string& relativePath,
                       const std::string& archiveFolderUrl, const Progress* progress = nullptr);
};

}  // namespace velum
