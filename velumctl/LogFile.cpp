#include "velumctl/LogFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <iostream>

#include "Velum/Base/SystemError.h"
#include "Velum/FileUtils.h"
#include "Velum/Files/FileIdentity.h"
#include "Velum/Logger/LogLock.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/LogSearch.h"
#include "velumctl/Errors.h"

namespace velumctl {
namespace {

using velum::LogDate;

constexpr std::string_view caller = "velumctl";
constexpr std::size_t headSize = 64;  // date, process and thread: no two generations share them

// Keeps writers out, but does not wait for ever for one that is stopped: what is there is shown all
// the same, and from then on nothing is waited for until the lock was free again.
class WritersLock {
 public:
  WritersLock(int fd, const std::string& path)
      : lock_(fd, {.limit = std::chrono::seconds(isStuck ? 0 : 10), .onWait = [&path] {
                     std::cerr << "velumctl: waiting for another process to release " + path + '\n';
                   }}) {
    const bool isHeld = lock_.waitResult() == velum::LogLock::WaitResult::goOn;
    if (!isHeld && !isStuck) {
      std::cerr << "velumctl: going on without the lock; the last record may be incomplete\n";
    }
    isStuck = !isHeld;
  }

 private:
  static inline std::atomic<bool> isStuck = false;
  velum::LogLock lock_;
};

[[noreturn]] void rejectIrregular(const std::string& path) {
  throw Failure(path + " is not a regular file; name a log file");
}

}  // namespace

std::optional<LogFile> LogFile::open(const std::string& path) {
  struct stat status {};
  velum::UniqueFd fd(velum::retryInterrupted(
      [&path] { return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
  if (!fd) {
    if (errno == ENOENT) return std::nullopt;
    throw velum::lastSystemError(path);
  }
  if (::fstat(fd.get(), &status) != 0) throw velum::lastSystemError(path);
  if (!S_ISREG(status.st_mode)) rejectIrregular(path);
  LogFile file(path, std::move(fd));
  file.isIntact();
  return file;
}

bool LogFile::isAtItsPath() const {
  const auto open = velum::FileIdentity::ofFile(fd_.get());
  return open && open == velum::FileIdentity::ofPath(path_);
}

bool LogFile::isIntact() {
  std::array<char, headSize> bytes{};
  const std::string_view head(bytes.data(), readAt(0, bytes.data(), bytes.size()));
  if (!head.starts_with(head_) || size() < position_) return false;
  head_ = head;
  return true;
}

std::optional<LogFile> LogFile::rotatedCopy() const {
  auto copy = open(velum::rotatedFilePath(path_, 1));
  if (!copy || !copy->head_.starts_with(head_) || copy->size() < position_) return std::nullopt;
  copy->setRange(position_, copy->size());
  return copy;
}

std::int64_t LogFile::completeSize(bool& isIntact) {
  const WritersLock writers(fd_.get(), path_);
  isIntact = this->isIntact();
  return size();
}

std::int64_t LogFile::size() const {
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0) throw velum::lastSystemError(path_);
  return status.st_size;
}

void LogFile::setRange(std::int64_t begin, std::int64_t end) noexcept {
  position_ = begin;
  end_ = end;
}

void LogFile::restart() noexcept {
  head_.clear();
  position_ = end_ = 0;
}

bool LogFile::read(std::vector<char>& buffer, RecordParser& parser) {
  while (position_ < end_) {
    const auto wanted =
        std::min<std::int64_t>(end_ - position_, static_cast<std::int64_t>(buffer.size()));
    const std::size_t got = readAt(position_, buffer.data(), static_cast<std::size_t>(wanted));
    // Looked at afterwards, so that the bytes are known to be this generation's.
    if (got == 0 || !isIntact()) return false;
    const bool isLast = position_ + static_cast<std::int64_t>(got) >= end_;
    position_ += static_cast<std::int64_t>(parser.add({buffer.data(), got}, isLast));
  }
  return true;
}

std::size_t LogFile::readAt(std::int64_t position, char* bytes, std::size_t size) const {
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t got = velum::retryInterrupted([&] {
      return ::pread(fd_.get(), bytes + filled, size - filled,
                     position + static_cast<std::int64_t>(filled));
    });
    if (got < 0) throw velum::lastSystemError(path_);
    if (got == 0) break;
    filled += static_cast<std::size_t>(got);
  }
  return filled;
}

namespace {

// Both as they are between two records. Rotation and saving take the same lock.
LogFiles openAtOnce(const std::string& path) {
  LogFiles files{std::nullopt, LogFile::open(path)};
  const WritersLock writers(files.live ? files.live->descriptor() : -1, path);
  files.rotated = LogFile::open(velum::rotatedFilePath(path, 1));
  for (auto* const file : {&files.rotated, &files.live}) {
    if (*file && (*file)->isIntact()) (*file)->setRange(0, (*file)->size());
  }
  return files;
}

// False when the file was replaced or emptied meanwhile.
bool restrictTo(LogFile& file, std::optional<LogDate> since, std::optional<LogDate> until) {
  velum::LogReader reader(file.path(), caller);
  const velum::LogRange range = velum::LogSearch(reader).range(since, until);
  if (!file.isAtItsPath() || !file.isIntact()) return false;
  // Without an end the file is read as far as it was complete when it was opened.
  if (until) file.setEnd(std::max(range.begin, range.end));
  file.setRange(std::min(range.begin, file.end()), file.end());
  return true;
}

}  // namespace

LogFiles openLog(const std::string& path, std::optional<LogDate> since,
                 std::optional<LogDate> until, bool mayBeMissing) {
  constexpr int attempts = 10;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    LogFiles files = openAtOnce(path);
    if (!files.rotated && !files.live && !mayBeMissing) {
      throw velum::SystemError(ENOENT, path);
    }
    if (!since && !until) return files;
    if ((!files.rotated || restrictTo(*files.rotated, since, until)) &&
        (!files.live || restrictTo(*files.live, since, until))) {
      return files;
    }
  }
  throw Failure(fmt::format("{} is emptied again and again; try again later", path));
}

std::int64_t sizeOfLog(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) throw velum::lastSystemError(path);
  if (!S_ISREG(status.st_mode)) rejectIrregular(path);
  return status.st_size;
}

void drain(LogFile& file, std::vector<char>& buffer, RecordParser& parser) {
  if (!file.read(buffer, parser)) {
    if (auto copy = file.rotatedCopy()) {
      copy->setEnd(std::min(copy->size(), file.end()));
      copy->read(buffer, parser);
    }
  }
  parser.finish();
}

}  // namespace velumctl
