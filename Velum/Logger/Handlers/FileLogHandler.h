#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/LogHandler.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/FileEvents.h"
#include "Velum/Platform/SystemLog.h"

namespace velum {

/// When a log file is rotated, and how often that is checked.
struct RotationPolicy {
  std::int64_t maxSize = 52'428'800;     ///< Bytes; a file of this size or more is rotated.
  std::int64_t minAgedSize = 2'097'152;  ///< Bytes; a smaller file is never rotated for its age.
  std::chrono::seconds maxAge{172'800};  ///< Since the last modification.
  std::chrono::nanoseconds firstCheck = std::chrono::seconds(5);
  std::chrono::nanoseconds checkInterval = std::chrono::seconds(300);
};

/// Appends records to one log file that any number of threads and processes share, keeps its size
/// bounded and survives its deletion. The format is in LogRecord.h.
///
/// A record is in the file when `logWithLevel` returns: three system calls on the caller's thread
/// (lock, write, unlock), no buffer, no writer thread. Several processes interleave whole records.
/// Failures are silent towards the caller: while the file can't be opened or written, records are
/// dropped, and the reason stands in the system log. Writing recovers by itself.
///
/// Who may read the file can lock it, and may be stopped meanwhile, so nobody waits for its lock
/// for more than two seconds. Then the record is written without, whole all the same, and for ten
/// seconds each one asks for the lock only once. Rotation takes place under the lock or not at all.
///
/// There is one generation of rotated file: name.1.log. Rotation copies and then empties, so that
/// the descriptors of all processes stay valid.
///
/// The system log is told when no lock is held. After fork(2), which waits for no file and no other
/// process, the child opens the file anew with its first record.
class FileLogHandler final : public LogHandlerProtocol,
                             public ForkParticipant,
                             public std::enable_shared_from_this<FileLogHandler> {
  struct Private {};  // keeps construction to `create`

 public:
  /// What the handler needs of the system; the defaults are the real ones.
  struct Services {
    FileEvents* fileEvents = &FileEvents::shared();
    std::shared_ptr<SystemLog> systemLog;  ///< For internal lines; by default category "logger".
    std::chrono::nanoseconds patience = std::chrono::seconds(2);  ///< With who holds the file.
  };

  /// Opens `filepath`, begins to watch it and schedules the first rotation check. Never fails.
  static std::shared_ptr<FileLogHandler> create(std::string subsystem, std::string filepath,
                                                bool addPrefix);
  static std::shared_ptr<FileLogHandler> create(std::string subsystem, std::string filepath,
                                                bool addPrefix, RotationPolicy policy,
                                                Services services);

  FileLogHandler(Private, std::string subsystem, std::string filepath, bool addPrefix,
                 RotationPolicy policy, Services services);
  FileLogHandler(const FileLogHandler&) = delete;
  FileLogHandler& operator=(const FileLogHandler&) = delete;
  ~FileLogHandler() override;

  /// Writes one record. The level stands in the text already.
  void logWithLevel(LogLevel level, LogDate date, std::string_view message) override;
  /// The same with an explicit choice of the prefix.
  void logWithLevel(LogLevel level, LogDate date, bool addPrefix, std::string_view message);

  void prepareFork() noexcept override;
  void afterForkInParent() noexcept override;
  void afterForkInChild() noexcept override;

 private:
  class FileTurn;

  void openLogFileLk(FileTurn& turn);
  void startRemovalWatchLk(FileTurn& turn);
  bool isOpenFileAtPathLk() const;
  void openAndWatchLk(FileTurn& turn);
  void reopenOnRemoval();
  void reopenLk(FileTurn& turn);

  void startRotationChecksLk(FileTurn& turn);
  void checkRotation();
  void rotateIfNeededLk(FileTurn& turn);
  bool shouldRotateLk(FileTurn& turn);
  void rotateFileLk();
  void copyLateRecordsLk(const std::string& copy) const;

  /// A record about the log itself: into the file, when one is open, and to the system log.
  void loggerLogLk(FileTurn& turn, std::string_view message, LogLevel level);
  std::string descriptorText(std::string_view call) const;

  UniqueFd fd_;
  // Guards the fields around it, and all that is done with the file. Taken before the file's lock,
  // which is waited for under it; so fork does not wait for this one but for the next.
  UnfairLock lock_;
  UnfairLock changing_;  // taken under lock_ where fields change: fork finds them whole
  std::unique_ptr<FileEvents::Watch> fdSource_;
  std::unique_ptr<DispatchSource> timer_;
  std::shared_ptr<DispatchQueue> queue_;
  bool addPrefix_;
  bool isUnchecked_ = false;  // there could be no timer, which has been told
  bool isForked_ = false;     // the file, the watch and the timer are still the parent's
  std::string subsystem_;
  std::string filepath_;
  RotationPolicy policy_;
  std::chrono::nanoseconds patience_;
  std::chrono::steady_clock::time_point hastyUntil_;  // somebody holds on to the file's lock
  FileEvents& fileEvents_;
  std::shared_ptr<SystemLog> oslog_;
};

}  // namespace velum
