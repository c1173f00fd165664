#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/LogHandler.h"
#include "velumctl/LogRecords.h"

namespace velumctl {

/// A log file that others write, and how far it has been read.
///
/// Rotation copies the file and then empties it, so the bytes that were not read yet are found in
/// the copy at the same place. How the file began tells which copy is the right one.
class LogFile {
 public:
  /// Nothing when there is no file. Throws Failure when it is not a regular file (opening anything
  /// else might block), and SystemError.
  static std::optional<LogFile> open(const std::string& path);

  const std::string& path() const noexcept { return path_; }
  int descriptor() const noexcept { return fd_.get(); }
  /// True when the path still leads to this file.
  bool isAtItsPath() const;
  /// False when the file was emptied since it was opened or last restarted.
  bool isIntact();
  /// The copy that rotation made of what this file held, to be read on from the same place.
  std::optional<LogFile> rotatedCopy() const;

  /// The size in bytes while nobody writes: all records before it are whole. In `isIntact` stands
  /// what that function says at the same moment. Where a process holds the log's lock for long,
  /// standard error says so, and the size is what it is without it.
  std::int64_t completeSize(bool& isIntact);
  std::int64_t size() const;

  /// The bytes to be read: from the position up to, not including, the end.
  void setRange(std::int64_t begin, std::int64_t end) noexcept;
  std::int64_t end() const noexcept { return end_; }
  void setEnd(std::int64_t end) noexcept { end_ = end; }
  /// Begins anew with the first byte.
  void restart() noexcept;
  /// Reads the range through `buffer`. False when the file was emptied before its end was reached.
  bool read(std::vector<char>& buffer, RecordParser& parser);

 private:
  LogFile(std::string path, velum::UniqueFd fd) : path_(std::move(path)), fd_(std::move(fd)) {}
  std::size_t readAt(std::int64_t position, char* bytes, std::size_t size) const;

  std::string path_;
  velum::UniqueFd fd_;
  std::string head_;  // its first bytes, as many as were there
  std::int64_t position_ = 0;
  std::int64_t end_ = 0;
};

/// The files of a log at one moment, to be read in this order.
struct LogFiles {
  std::optional<LogFile> rotated;
  std::optional<LogFile> live;
};

/// Opens the log whose live file is at `path` and restricts both files to the records from `since`
/// to `until`, whole seconds, both inclusive. Waits for the log's lock like `completeSize`. Throws
/// like LogFile::open, and SystemError ENOENT when there is neither file unless `mayBeMissing`.
LogFiles openLog(const std::string& path, std::optional<velum::LogDate> since,
                 std::optional<velum::LogDate> until, bool mayBeMissing);

/// The size in bytes of the log file at `path`. Throws SystemError, and Failure when it is anything
/// but a regular file, which the library's saving would open all the same and perhaps wait for.
std::int64_t sizeOfLog(const std::string& path);

/// Reads what is left of a file's range, from its rotated copy if need be.
void drain(LogFile& file, std::vector<char>& buffer, RecordParser& parser);

}  // namespace velumctl
