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
#include <mutex>

#include "Velum/FileUtils.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/LogSearch.h"
#include "Velum/Logger/LogSplitter.h"
#include "Velum/Platform/FileClone.h"
#include "Velum/Platform/Posix/FileLock.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view saveLogsName = "saveLogs(selecting:inFolder:opts:)";
constexpr std::string_view saveWholeLogName = "saveWholeLog(in:maxSize:)";
constexpr std::string_view duplicateName = "duplicateLogFiles(to:)";
constexpr std::string_view doSaveLogsName = "doSaveLogs(_:selecting:in:opts:)";
constexpr std::string_view copyfileName = "copyfile(_:to:append:maxSize:seekSeparator:)";
constexpr std::string_view resetLogName = "resetLog()";

constexpr std::int64_t noLimit = std::numeric_limits<std::int64_t>::max();

std::string inFolder(const std::string& folder, const std::string& path) {
  return (fs::path(folder) / fs::path(path).filename()).string();
}

/// A temporary folder that goes with all it holds.
class ScratchFolder {
 public:
  ScratchFolder(const std::string& parent, std::string_view caller)
      : path_(makeTemporaryFolder("log", parent, caller)) {}
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  ~ScratchFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }

  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

std::int64_t sizeOf(int fd, const std::string& path, std::string_view caller) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) throw lastSystemError(fmt::format("{}: stat ({})", caller, path));
  return status.st_size;
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
    if (const int error = copyFileRange(fd.get(), begin, target, offset, size())) {
      throw SystemError(error, fmt::format("{}: write ({}, {})", caller, path, size()));
    }
  }
};

void moveInto(const std::string& from, const std::string& to, std::string_view caller) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    throw lastSystemError(fmt::format("{}: rename ({}, {})", caller, from, to));
  }
}

}  // namespace

std::vector<std::string> FileLogManager::saveLogs(const LogSubsystemSelector& selector,
                                                  const std::string& folder,
                                                  const LogSavingOpts& opts) const {
  if (!opts.startDate && !opts.endDate && selector.isWhole()) {
    return {saveWholeLog(folder, opts.maxSize)};
  }
  const std::int64_t limit = opts.maxSize.value_or(noLimit);
  const ScratchFolder scratch(folder, saveLogsName);
  const std::string subsystems = scratch.path() + "/subsystems";
  if (::mkdir(subsystems.c_str(), 0700) != 0) {
    throw lastSystemError(fmt::format("{}: mkdir ({})", saveLogsName, subsystems));
  }
  auto files = prepareTempFiles(scratch.path(), std::nullopt);
  std::vector<std::string> saved;
  for (const std::string& output : doSaveLogs(std::move(files), selector, subsystems, opts)) {
    const std::string destination = inFolder(folder, output);
    if (checked::fileSize(output, saveLogsName) <= limit) {
      moveInto(output, destination, saveLogsName);  // what a clone would come to, for nothing
    } else {
      copyfile(output, destination, false, -limit, true);
    }
    saved.push_back(destination);
  }
  return saved;
}

// Copies every byte once: the live file straight to its place behind the rotated one's, under the
// writers' lock; the rotated file afterwards, because rotation replaces it and never writes into
// it, so that the open file stays what it is.
std::string FileLogManager::saveWholeLog(const std::string& folder,
                                         std::optional<std::int64_t> maxSize) const {
  const std::int64_t limit = maxSize.value_or(noLimit);
  const ScratchFolder scratch(folder, saveWholeLogName);
  const std::string unfinished = inFolder(scratch.path(), logPath_);
  const UniqueFd target =
      checked::open(unfinished, O_WRONLY | O_CREAT | O_EXCL, 0644, saveWholeLogName);
  Piece rotated;
  {
    UniqueFd liveFile = checked::open(logPath_, O_RDONLY, 0660, saveWholeLogName);
    const FileLock writers(liveFile.get());
    const std::int64_t liveSize = sizeOf(liveFile.get(), logPath_, saveWholeLogName);
    rotated.path = rotatedFilePath(logPath_, 1);
    rotated.fd = UniqueFd(retryInterrupted(
        [&] { return ::open(rotated.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
    if (!rotated.fd && errno != ENOENT) {
      throw lastSystemError(fmt::format("{}: open ({})", saveWholeLogName, rotated.path));
    }
    if (rotated.fd && limit > liveSize) {
      rotated =
          Piece::tail(rotated.path, std::move(rotated.fd), limit - liveSize, saveWholeLogName);
    }
    const int liveDescriptor = liveFile.get();
    const Piece live{logPath_, std::move(liveFile),
                     tailStart(liveDescriptor, logPath_, liveSize, limit, saveWholeLogName),
                     liveSize};
    live.copyTo(target.get(), rotated.size(), saveWholeLogName);
  }
  rotated.copyTo(target.get(), 0, saveWholeLogName);
  std::string destination = inFolder(folder, logPath_);
  moveInto(unfinished, destination, saveWholeLogName);
  return destination;
}

std::vector<std::string> FileLogManager::duplicateLogFiles(const std::string& folder) const {
  const UniqueFd live = checked::open(logPath_, O_RDONLY, 0660, duplicateName);
  const FileLock writers(live.get());
  std::vector<std::string> copies{inFolder(folder, logPath_)};
  clonefile(logPath_, copies.front());
  const std::string rotated = rotatedFilePath(logPath_, 1);
  std::string copy = inFolder(folder, rotated);
  // A second name is clone enough for a file that is replaced and never written into.
  if (::linkat(AT_FDCWD, rotated.c_str(), AT_FDCWD, copy.c_str(), AT_SYMLINK_FOLLOW) != 0) {
    if (errno == ENOENT) return copies;
    clonefile(rotated, copy);
  }
  copies.push_back(std::move(copy));
  return copies;
}

std::vector<FileLogManager::TempFile> FileLogManager::prepareTempFiles(
    const std::string& folder, std::optional<std::int64_t> maxSize) const {
  std::vector<TempFile> files;
  std::int64_t bytesBefore = 0;
  for (std::string& path : duplicateLogFiles(folder)) {
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
  return splitter.finish();
}

void FileLogManager::resetLog() {
  const std::lock_guard guard(turn_);
  const UniqueFd live = checked::open(logPath_, O_WRONLY | O_APPEND, 0, resetLogName);
  const FileLock writers(live.get());
  if (::ftruncate(live.get(), 0) != 0) {
    throw lastSystemError(fmt::format("{}: truncate ({})", resetLogName, logPath_));
  }
  std::string record;
  appendRecordPrefix(record, std::chrono::system_clock::now(), "Velum");
  record += makeRecordText(LogLevel::info, "FileLogManager", resetLogName, "Log has been reset");
  record += '\n';
  checked::write(live.get(), record.data(), record.size(), resetLogName);
  const std::string rotated = rotatedFilePath(logPath_, 1);
  if (::unlink(rotated.c_str()) != 0 && errno != ENOENT) {
    throw lastSystemError(fmt::format("{}: unlink ({})", resetLogName, rotated));
  }
}

void copyfile(const std::string& source, const std::string& destination, bool append,
              std::int64_t maxSize, bool seekSeparator) {
  const std::int64_t size = checked::fileSize(source, copyfileName);
  const std::int64_t firstByte =
      maxSize >= 0 ? 0 : std::max<std::int64_t>(size + maxSize, 0);  // maxSize > -2^63, see noLimit
  const std::int64_t count = maxSize >= 0 ? std::min(maxSize, size) : size - firstByte;
  if (!append && firstByte == 0 && count == size) {
    clonefile(source, destination);
    return;
  }
  UniqueFd file = checked::open(source, O_RDONLY, 0, copyfileName);
  // Without O_APPEND: the kernel copies between files only to a given place.
  const int flags = O_WRONLY | O_CREAT | (append ? 0 : O_TRUNC);
  const UniqueFd target = checked::open(destination, flags, 0660, copyfileName);
  Piece piece{source, std::move(file), firstByte, firstByte + count};
  if (seekSeparator && maxSize < 0) {
    piece.begin = tailStart(piece.fd.get(), source, size, count, copyfileName);
  }
  piece.copyTo(target.get(), append ? sizeOf(target.get(), destination, copyfileName) : 0,
               copyfileName);
}

}  // namespace velum
