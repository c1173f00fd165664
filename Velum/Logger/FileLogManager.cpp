#include "Velum/Logger/FileLogManager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/FileIdentity.h"
#include "Velum/Files/TemporaryFolder.h"
#include "Velum/Logger/LogLock.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/LogSearch.h"
#include "Velum/Logger/LogSplitter.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/FileClone.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view saveLogsName = "saveLogs(selecting:inFolder:opts:)";
constexpr std::string_view saveWholeLogName = "saveWholeLog(in:maxSize:)";
constexpr std::string_view duplicateName = "duplicateLogFiles(to:)";
constexpr std::string_view doSaveLogsName = "doSaveLogs(_:selecting:in:opts:)";
constexpr std::string_view copyfileName = "copyfile(_:to:append:maxSize:seekSeparator:)";
constexpr std::string_view resetLogName = "resetLog()";
constexpr std::string_view holdsName = "holds(_:)";

constexpr std::int64_t noLimit = std::numeric_limits<std::int64_t>::max();

std::string inFolder(const std::string& folder, const std::string& path) {
  return (fs::path(folder) / fs::path(path).filename()).string();
}

void stopIfCancelled(const Progress* progress, std::string_view caller) {
  if (progress == nullptr || !progress->isCancelled()) return;
  throw SystemError(ECANCELED, std::string(caller));
}

struct stat statusOf(int fd, const std::string& path, std::string_view caller) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) throw lastSystemError(fmt::format("{}: stat ({})", caller, path));
  return status;
}

std::int64_t sizeOf(int fd, const std::string& path, std::string_view caller) {
  return statusOf(fd, path, caller).st_size;
}

/// A file of the log, open; nothing when it is not there. Anything but a file is an error, and not
/// waited for.
UniqueFd openLogFile(const std::string& path, int flags, std::string_view caller) try {
  UniqueFd file = checked::open(path, flags | O_NONBLOCK, 0660, caller);
  const mode_t mode = statusOf(file.get(), path, caller).st_mode;
  if (!S_ISREG(mode)) {
    throw SystemError(S_ISDIR(mode) ? EISDIR : EINVAL, fmt::format("{}: open ({})", caller, path));
  }
  return file;
} catch (const SystemError& error) {
  if (error.code() != ENOENT) throw;
  return {};
}

/// The live file, into which nobody else writes meanwhile.
class HeldLog {
 public:
  HeldLog(const std::string& path, int flags, std::string_view caller, const Progress* progress)
      : file_(openLogFile(path, flags, caller)),
        lock_(file_.get(), {.progress = progress, .onWait = [&path] {
                              logWarning({"Velum/FileLogManager"},
                                         "Waiting for another process to release {}", path);
                            }}) {
    if (!file_) throw SystemError(ENOENT, fmt::format("{}: open ({})", caller, path));
    if (lock_.waitResult() == LogLock::WaitResult::cancelled) stopIfCancelled(progress, caller);
    if (lock_.waitResult() == LogLock::WaitResult::timedOut) {
      throw SystemError(ETIMEDOUT,
                        fmt::format("{}: lock ({}), another process holds it", caller, path));
    }
  }

  int fd() const noexcept { return file_.get(); }

 private:
  UniqueFd file_;
  LogLock lock_;  // released before the file is closed
};

/// Takes from a new file whatever permission its source does not give.
void limitReaders(const UniqueFd& file, const std::string& path, const struct stat& source,
                  std::string_view caller) {
  const struct stat own = statusOf(file.get(), path, caller);
  mode_t allowed = source.st_mode;
  if (own.st_gid != source.st_gid) allowed = (allowed & 0707U) | (allowed & 07U) << 3U;
  const mode_t mode = own.st_mode & (allowed | 0600U) & 0777U;
  if (mode != (own.st_mode & 0777U) && ::fchmod(file.get(), mode) != 0) {
    throw lastSystemError(fmt::format("{}: fchmod ({})", caller, path));
  }
}

/// What stands at a path; nothing when nothing does.
std::optional<FileIdentity> fileAt(const std::string& path) {
  const auto file = FileIdentity::ofPath(path);
  if (!file && errno != ENOENT && errno != ENOTDIR) {
    throw lastSystemError(fmt::format("{}: stat ({})", holdsName, path));
  }
  return file;
}

bool leadToTheSame(const std::string& a, const std::string& b) {
  const auto first = fileAt(a);
  const auto second = fileAt(b);
  return first && first == second;
}

/// Whether two paths name the same entry of a folder, or lead to the same file.
bool isSamePlace(const std::string& a, const std::string& b) {
  const auto folderOf = [](const std::string& path) {
    const fs::path folder = fs::path(path).parent_path();
    return folder.empty() ? std::string(".") : folder.string();
  };
  return leadToTheSame(a, b) || (fs::path(a).filename() == fs::path(b).filename() &&
                                 leadToTheSame(folderOf(a), folderOf(b)));
}

/// Where the last `wanted` bytes of a file begin, moved on to a record's start when that is not
/// the file's own start.
std::int64_t tailStart(int fd, const std::string& path, std::int64_t size, std::int64_t wanted,
                       std::string_view caller) {
  const std::int64_t start = wanted >= size ? 0 : size - wanted;
  if (start == 0) return 0;
  std::vector<char> buffer(LogReader::bufferSize);
  const ssize_t got =
      retryInterrupted([&] { return ::pread(fd, buffer.data(), buffer.size(), start); });
  if (got < 0) throw lastSystemError(fmt::format("{}: read ({})", caller, path));
  const std::string_view bytes(buffer.data(), static_cast<std::size_t>(got));
  const std::size_t separator = bytes.find(recordSeparator);
  return separator == std::string_view::npos ? start : start + static_cast<std::int64_t>(separator);
}

void copyPart(int fd, const std::string& path, LogRange part, int target, std::int64_t offset,
              std::string_view caller) {
  const std::int64_t size = part.end - part.begin;
  const CopyOutcome copied = copyFileRange(fd, part.begin, target, offset, size);
  if (copied.error == 0) return;
  throw SystemError(copied.error, copied.isOfSource
                                      ? fmt::format("{}: read ({})", caller, path)
                                      : fmt::format("{}: write ({}, {})", caller, path, size));
}

/// A part of an open file.
struct Piece {
  std::string path;
  UniqueFd fd;
  std::int64_t begin = 0;
  std::int64_t end = 0;

  std::int64_t size() const noexcept { return end - begin; }

  /// The newest `limit` bytes of the file.
  static Piece tail(std::string path, UniqueFd fd, std::int64_t limit, std::string_view caller) {
    const std::int64_t size = sizeOf(fd.get(), path, caller);
    const std::int64_t begin = tailStart(fd.get(), path, size, limit, caller);
    return {std::move(path), std::move(fd), begin, size};
  }

  void copyTo(int target, std::int64_t offset, std::string_view caller) const {
    copyPart(fd.get(), path, {begin, end}, target, offset, caller);
  }
};

void moveInto(const std::string& from, const std::string& to, std::string_view caller) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    throw lastSystemError(fmt::format("{}: rename ({}, {})", caller, from, to));
  }
}

void refuseReplacing(const FileLogManager& log, const std::string& path, std::string_view caller) {
  if (!log.holds(path)) return;
  throw SystemError(
      EEXIST,
      fmt::format("{}: {} is a file of the log itself; save into another folder", caller, path));
}

}  // namespace

bool FileLogManager::holds(const std::string& path) const {
  return isSamePlace(path, logPath_) || isSamePlace(path, rotatedFilePath(logPath_, 1));
}

std::vector<std::string> FileLogManager::saveLogs(const LogSubsystemSelector& selector,
                                                  const std::string& folder,
                                                  const LogSavingOpts& opts,
                                                  const Progress* progress) const {
  if (!opts.startDate && !opts.endDate && selector.isWhole()) {
    return {saveWholeLog(folder, opts.maxSize, progress)};
  }
  const std::int64_t limit = opts.maxSize.value_or(noLimit);
  const TemporaryFolder scratch("log", folder, saveLogsName);
  const std::string subsystems = scratch.path() + "/subsystems";
  if (::mkdir(subsystems.c_str(), 0700) != 0) {
    throw lastSystemError(fmt::format("{}: mkdir ({})", saveLogsName, subsystems));
  }
  auto files = prepareTempFiles(scratch.path(), std::nullopt, progress);
  stopIfCancelled(progress, saveLogsName);
  const auto outputs = doSaveLogs(std::move(files), selector, subsystems, opts);
  for (const std::string& output : outputs) {
    refuseReplacing(*this, inFolder(folder, output), saveLogsName);
  }
  std::vector<std::string> saved;
  for (const std::string& output : outputs) {
    stopIfCancelled(progress, saveLogsName);
    saved.push_back(inFolder(folder, output));
    if (checked::fileSize(output, saveLogsName) <= limit) {
      moveInto(output, saved.back(), saveLogsName);  // what a clone would come to, for nothing
    } else {
      const std::string part = output + ".part";
      copyfile(output, part, false, -limit, true);
      moveInto(part, saved.back(), saveLogsName);
    }
  }
  return saved;
}

// Copies every byte once: the live file straight to its place behind the rotated one's, under the
// writers' lock; the rotated file afterwards, because rotation replaces it and never writes into
// it, so that the open file stays what it is.
std::string FileLogManager::saveWholeLog(const std::string& folder,
                                         std::optional<std::int64_t> maxSize,
                                         const Progress* progress) const {
  const std::int64_t limit = maxSize.value_or(noLimit);
  std::string destination = inFolder(folder, logPath_);
  refuseReplacing(*this, destination, saveWholeLogName);
  const TemporaryFolder scratch("log", folder, saveWholeLogName);
  const std::string unfinished = inFolder(scratch.path(), logPath_);
  const UniqueFd target =
      checked::open(unfinished, O_WRONLY | O_CREAT | O_EXCL, 0644, saveWholeLogName);
  Piece rotated;
  {
    const HeldLog log(logPath_, O_RDONLY, saveWholeLogName, progress);
    const struct stat status = statusOf(log.fd(), logPath_, saveWholeLogName);
    limitReaders(target, unfinished, status, saveWholeLogName);
    rotated.path = rotatedFilePath(logPath_, 1);
    rotated.fd = openLogFile(rotated.path, O_RDONLY, saveWholeLogName);
    if (rotated.fd && limit > status.st_size) {
      rotated = Piece::tail(rotated.path, std::move(rotated.fd), limit - status.st_size,
                            saveWholeLogName);
      limitReaders(target, unfinished, statusOf(rotated.fd.get(), rotated.path, saveWholeLogName),
                   saveWholeLogName);
    }
    const LogRange live{tailStart(log.fd(), logPath_, status.st_size, limit, saveWholeLogName),
                        status.st_size};
    copyPart(log.fd(), logPath_, live, target.get(), rotated.size(), saveWholeLogName);
  }
  rotated.copyTo(target.get(), 0, saveWholeLogName);
  stopIfCancelled(progress, saveWholeLogName);
  moveInto(unfinished, destination, saveWholeLogName);
  return destination;
}

std::vector<std::string> FileLogManager::duplicateLogFiles(const std::string& folder,
                                                           const Progress* progress) const {
  const HeldLog log(logPath_, O_RDONLY, duplicateName, progress);
  std::vector<std::string> copies{inFolder(folder, logPath_)};
  cloneFile(logPath_, copies.front());
  const std::string rotated = rotatedFilePath(logPath_, 1);
  if (!openLogFile(rotated, O_RDONLY, duplicateName)) return copies;
  copies.push_back(inFolder(folder, rotated));
  // A second name is clone enough for a file that is replaced and never written into.
  if (::linkat(AT_FDCWD, rotated.c_str(), AT_FDCWD, copies.back().c_str(), AT_SYMLINK_FOLLOW) !=
      0) {
    cloneFile(rotated, copies.back());
  }
  return copies;
}

std::vector<FileLogManager::TempFile> FileLogManager::prepareTempFiles(
    const std::string& folder, std::optional<std::int64_t> maxSize,
    const Progress* progress) const {
  std::vector<TempFile> files;
  std::int64_t bytesBefore = 0;
  for (std::string& path : duplicateLogFiles(folder, progress)) {
    if (maxSize && *maxSize < bytesBefore) break;
    const std::int64_t size = checked::fileSize(path, duplicateName);
    files.push_back({std::move(path), size, bytesBefore});
    bytesBefore += size;
  }
  return files;
}

std::vector<std::string> FileLogManager::doSaveLogs(std::vector<TempFile> files,
                                                    const LogSubsystemSelector& selector,
                                                    const std::string& folder,
                                                    const LogSavingOpts& opts) {
  constexpr std::chrono::seconds margin(1);
  auto lower = opts.startDate;
  auto upper = opts.endDate;
  if (lower) lower = later(*lower, -margin);
  if (upper) upper = later(*upper, margin);
  LogSplitter splitter(folder, selector, doSaveLogsName);
  std::reverse(files.begin(), files.end());  // oldest first
  for (const TempFile& file : files) {
    if (file.size == 0) continue;
    LogReader reader(file.path, doSaveLogsName);
    const LogRange range = LogSearch(reader).range(lower, upper);
    if (!range.isEmpty()) splitter.add(reader, range);
  }
  std::vector<std::string> outputs = splitter.finish();
  for (const std::string& output : outputs) {
    const UniqueFd target = checked::open(output, O_RDONLY, 0, doSaveLogsName);
    for (const TempFile& file : files) {
      const UniqueFd source = checked::open(file.path, O_RDONLY, 0, doSaveLogsName);
      limitReaders(target, output, statusOf(source.get(), file.path, doSaveLogsName),
                   doSaveLogsName);
    }
  }
  return outputs;
}

void FileLogManager::resetLog() {
  const HeldLog log(logPath_, O_WRONLY | O_APPEND, resetLogName, nullptr);
  // The rotated file first, because that may not be permitted: then everything is as it was.
  const std::string rotated = rotatedFilePath(logPath_, 1);
  if (::unlink(rotated.c_str()) != 0 && errno != ENOENT) {
    throw lastSystemError(fmt::format("{}: unlink ({})", resetLogName, rotated));
  }
  if (::ftruncate(log.fd(), 0) != 0) {
    throw lastSystemError(fmt::format("{}: truncate ({})", resetLogName, logPath_));
  }
  std::string record;
  appendRecordPrefix(record, std::chrono::system_clock::now(), "Velum");
  record += makeRecordText(LogLevel::info, "FileLogManager", resetLogName, "Log has been reset");
  record += '\n';
  checked::write(log.fd(), record.data(), record.size(), resetLogName);
}

void copyfile(const std::string& source, const std::string& destination, bool append,
              std::int64_t maxSize, bool seekSeparator) {
  const std::int64_t size = checked::fileSize(source, copyfileName);
  const std::int64_t firstByte =
      maxSize >= 0 ? 0 : std::max<std::int64_t>(size + maxSize, 0);  // maxSize > -2^63, see noLimit
  const std::int64_t count = maxSize >= 0 ? std::min(maxSize, size) : size - firstByte;
  if (!append && firstByte == 0 && count == size) {
    cloneFile(source, destination);
    return;
  }
  UniqueFd file = checked::open(source, O_RDONLY, 0, copyfileName);
  // Without O_APPEND: the kernel copies between files only to a given place.
  const int flags = O_WRONLY | O_CREAT | (append ? 0 : O_TRUNC);
  struct stat before {};
  const bool isNew = ::lstat(destination.c_str(), &before) != 0 && errno == ENOENT;
  const UniqueFd target = checked::open(destination, flags, 0660, copyfileName);
  if (isNew) {
    limitReaders(target, destination, statusOf(file.get(), source, copyfileName), copyfileName);
  }
  Piece piece{source, std::move(file), firstByte, firstByte + count};
  if (seekSeparator && maxSize < 0) {
    piece.begin = tailStart(piece.fd.get(), source, size, count, copyfileName);
  }
  piece.copyTo(target.get(), append ? sizeOf(target.get(), destination, copyfileName) : 0,
               copyfileName);
}

}  // namespace velum
