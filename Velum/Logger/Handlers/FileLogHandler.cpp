#include "Velum/Logger/Handlers/FileLogHandler.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/FileIdentity.h"
#include "Velum/Files/FileLock.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Platform/FileClone.h"

namespace velum {
namespace {

// One write(2) for a whole record. What comes of it is not examined: there is nobody to tell, and
// the next record is as likely to succeed.
void writeRecord(int fd, std::string_view record) noexcept {
  retryInterrupted([&] { return ::write(fd, record.data(), record.size()); });
}

// A buffer for the record being built, kept between records of a thread unless a huge one blew it
// up. Taken rather than referred to, so that a record logged while another is built gets its own.
class RecordBuffer {
 public:
  RecordBuffer() {
    if (!isOver) text.swap(kept.text);
    text.clear();
  }
  RecordBuffer(const RecordBuffer&) = delete;
  RecordBuffer& operator=(const RecordBuffer&) = delete;
  ~RecordBuffer() {
    if (!isOver && text.capacity() <= mostKept) kept.text.swap(text);
  }

  std::string text;

 private:
  // Records may come after the end of the thread's storage: from exit handlers and from destructors
  // of static objects. Then nothing is kept.
  struct Kept {
    Kept() = default;
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;
    ~Kept() { isOver = true; }

    std::string text;
  };

  static constexpr std::size_t mostKept = 65536;
  static thread_local bool isOver;
  static thread_local Kept kept;
};

thread_local bool RecordBuffer::isOver = false;
thread_local RecordBuffer::Kept RecordBuffer::kept;

}  // namespace

/// What one thread does with the file, from taking the handler's lock to releasing it; after that,
/// the system log is told what is to be told.
class FileLogHandler::FileTurn {
 public:
  explicit FileTurn(FileLogHandler& handler) : handler_(handler), guard_(handler.lock_) {}
  FileTurn(const FileTurn&) = delete;
  FileTurn& operator=(const FileTurn&) = delete;
  ~FileTurn() {
    unlockFile();
    guard_.unlock();
    for (const auto& [type, text] : reports_) handler_.oslog_->write(type, text);
  }

  /// Waits for the file's lock, which belongs to the turn until its end. False when somebody else
  /// holds on to it.
  bool lockFile();
  /// To be called before the file is closed.
  void unlockFile() noexcept { writers_.reset(); }

  void report(SystemLog::Type type, std::string_view text) { reports_.emplace_back(type, text); }

 private:
  FileLogHandler& handler_;
  std::unique_lock<UnfairLock> guard_;
  std::optional<FileLock> writers_;
  std::vector<std::pair<SystemLog::Type, std::string>> reports_;
};

bool FileLogHandler::FileTurn::lockFile() {
  constexpr std::chrono::nanoseconds once{0};
  constexpr std::chrono::seconds hasteTime(10);
  using Clock = std::chrono::steady_clock;
  auto& hastyUntil = handler_.hastyUntil_;
  const bool isHasty = hastyUntil != Clock::time_point() && Clock::now() < hastyUntil;
  writers_.reset();
  writers_.emplace(FileLock::tryFor(handler_.fd_.get(), isHasty ? once : handler_.patience_));
  if (*writers_) return true;
  if (isHasty) return false;
  {
    const std::lock_guard changing(handler_.changing_);
    hastyUntil = Clock::now() + hasteTime;
  }
  handler_.loggerLogLk(*this, "Another process holds on to the log file. Writing without its lock.",
                       LogLevel::warning);
  return false;
}

std::shared_ptr<FileLogHandler> FileLogHandler::create(std::string subsystem, std::string filepath,
                                                       bool addPrefix) {
  return create(std::move(subsystem), std::move(filepath), addPrefix, {}, {});
}

std::shared_ptr<FileLogHandler> FileLogHandler::create(std::string subsystem, std::string filepath,
                                                       bool addPrefix, RotationPolicy policy,
                                                       Services services) {
  auto handler = std::make_shared<FileLogHandler>(
      Private{}, std::move(subsystem), std::move(filepath), addPrefix, policy, std::move(services));
  handler->registerForFork();
  FileTurn turn(*handler);
  handler->openAndWatchLk(turn);
  handler->startRotationChecksLk(turn);
  return handler;
}

FileLogHandler::FileLogHandler(Private /*unused*/, std::string subsystem, std::string filepath,
                               bool addPrefix, RotationPolicy policy, Services services)
    : ForkParticipant(Stage::handler),
      queue_(DispatchQueue::serial("FileLogHandler Queue")),
      addPrefix_(addPrefix),
      subsystem_(std::move(subsystem)),
      filepath_(std::move(filepath)),
      policy_(policy),
      patience_(services.patience),
      fileEvents_(*services.fileEvents),
      oslog_(services.systemLog ? std::move(services.systemLog)
                                : SystemLog::open(subsystem_, "logger")) {}

FileLogHandler::~FileLogHandler() {
  unregisterForFork();
}

void FileLogHandler::openAndWatchLk(FileTurn& turn) {
  const std::lock_guard changing(changing_);
  isForked_ = false;
  fdSource_.reset();
  openLogFileLk(turn);
  startRemovalWatchLk(turn);
}

void FileLogHandler::openLogFileLk(FileTurn& turn) {
  fd_.reset();
  // Non-blocking, because opening a FIFO waits for a reader; a FIFO that has one is refused in the
  // same way. Makes no difference to a regular file.
  fd_.reset(retryInterrupted([this] {
    return ::open(filepath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0644);
  }));
  if (struct stat status{}; fd_ && ::fstat(fd_.get(), &status) == 0 && S_ISFIFO(status.st_mode)) {
    fd_.reset();
    errno = ENXIO;
  }
  if (!fd_) {
    const std::string reason = systemErrorText(errno);
    loggerLogLk(turn, "Failed to open " + filepath_ + ": " + reason, LogLevel::error);
  }
}

void FileLogHandler::startRemovalWatchLk(FileTurn& turn) {
  constexpr int attempts = 10;  // against somebody who keeps replacing the file
  for (int attempt = 0; fd_ && attempt < attempts; ++attempt) {
    try {
      // Attributes and links too: a file deleted from its path may have another name and live on,
      // and a name that came and went at once leaves nothing but changed attributes.
      constexpr FileEvent events =
          FileEvent::deleted | FileEvent::renamed | FileEvent::attribute | FileEvent::link;
      fdSource_ =
          fileEvents_.watch(filepath_, events, queue_, [weak = weak_from_this()](FileEvent) {
            if (const auto self = weak.lock()) self->reopenOnRemoval();
          });
      if (isOpenFileAtPathLk()) return;
    } catch (const SystemError& error) {
      if (error.code() != ENOENT) {
        loggerLogLk(turn, std::string("Failed to watch ") + filepath_ + ": " + error.what(),
                    LogLevel::error);
        return;
      }
    }
    // The file went away between its opening and the watch: no event will tell.
    fdSource_.reset();
    openLogFileLk(turn);
  }
}

bool FileLogHandler::isOpenFileAtPathLk() const {
  const auto open = FileIdentity::ofFile(fd_.get());
  return open && open == FileIdentity::ofPath(filepath_);
}

void FileLogHandler::reopenOnRemoval() {
  FileTurn turn(*this);
  if (isForked_) return;  // the parent's event: the first record opens the child's file
  // Other attributes, a new link, a move there and back or lost events are no removal.
  if (!isOpenFileAtPathLk()) reopenLk(turn);
}

void FileLogHandler::reopenLk(FileTurn& turn) {
  turn.lockFile();  // waits for whoever is writing into the old file
  turn.unlockFile();
  openAndWatchLk(turn);
  turn.lockFile();
  loggerLogLk(turn, "Reopened the log file on removal", LogLevel::info);
}

void FileLogHandler::logWithLevel(LogLevel level, LogDate date, std::string_view message) {
  logWithLevel(level, date, addPrefix_, message);
}

void FileLogHandler::logWithLevel(LogLevel /*level*/, LogDate date, bool addPrefix,
                                  std::string_view message) {
  if (message.empty() || !isValidUtf8(message)) return;
  RecordBuffer record;
  if (addPrefix) appendRecordPrefix(record.text, date, subsystem_);
  appendStrippedHeaders(record.text, message);
  record.text += '\n';

  FileTurn turn(*this);
  const bool isNew = isForked_;
  if (isNew) openAndWatchLk(turn);
  if (isNew || isUnchecked_) startRotationChecksLk(turn);
  if (!fd_) return;
  turn.lockFile();  // without it the record is whole as well, being one write at the file's end
  writeRecord(fd_.get(), record.text);
}

void FileLogHandler::loggerLogLk(FileTurn& turn, std::string_view message, LogLevel level) {
  lock_.assertHeld();
  if (fd_.get() >= 1) {  // a log on descriptor 0 is a program that lost its standard input
    RecordBuffer record;
    appendRecordPrefix(record.text, std::chrono::system_clock::now(), subsystem_);
    appendStrippedHeaders(
        record.text, makeRecordText(level, "FileLogHandler", "loggerLogLk(_:level:)", message));
    record.text += '\n';
    writeRecord(fd_.get(), record.text);
  }
  turn.report(level == LogLevel::error ? SystemLog::Type::error : SystemLog::Type::normal, message);
}

void FileLogHandler::startRotationChecksLk(FileTurn& turn) try {
  const auto check = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->checkRotation();
  };
  auto timer = DispatchSource::timer(policy_.firstCheck, *queue_, check, policy_.checkInterval);
  const std::lock_guard changing(changing_);
  timer_.swap(timer);
  isUnchecked_ = false;
} catch (const SystemError& error) {
  // No descriptor is left for the first timer of the process. The next record tries again.
  if (std::exchange(isUnchecked_, true)) return;
  loggerLogLk(turn, "Failed to start checking " + filepath_ + ": " + error.what(), LogLevel::error);
}

void FileLogHandler::checkRotation() {
  FileTurn turn(*this);
  if (isForked_) return;
  if (!fd_) openAndWatchLk(turn);
  if (fd_ && !isOpenFileAtPathLk()) reopenLk(turn);  // its event is on its way, or was lost
  if (fd_ && !fdSource_) {
    const std::lock_guard changing(changing_);
    startRemovalWatchLk(turn);
  }
  rotateIfNeededLk(turn);
}

void FileLogHandler::rotateIfNeededLk(FileTurn& turn) try {
  if (!turn.lockFile()) {
    throw SystemError(EWOULDBLOCK, descriptorText("rotateIfNeededLk(), flock ("));
  }
  if (!shouldRotateLk(turn)) return;
  rotateFileLk();
  loggerLogLk(turn, "Log file has been rotated", LogLevel::info);
} catch (const std::exception& error) {
  loggerLogLk(turn, "Failed to rotate file " + filepath_ + ": " + error.what(), LogLevel::error);
}

bool FileLogHandler::shouldRotateLk(FileTurn& turn) {
  struct stat status {};
  if (::fstat(fd_.get(), &status) != 0) {
    throw lastSystemError(descriptorText("shouldRotateLk(), fstat ("));
  }
  const auto size = static_cast<std::int64_t>(status.st_size);
  if (size >= policy_.maxSize) {
    loggerLogLk(turn,
                fmt::format("Log file size is {} bytes, which is more than {}. "
                            "It needs to be rotated.",
                            size, policy_.maxSize),
                LogLevel::info);
    return true;
  }
  // By the modification time, so that a file in use never counts as old.
  if (size >= policy_.minAgedSize && ::time(nullptr) - status.st_mtime >= policy_.maxAge.count()) {
    loggerLogLk(turn, "File too old. It needs to be rotated.", LogLevel::info);
    return true;
  }
  loggerLogLk(turn, fmt::format("No need rotating the log file. File size is {} bytes.", size),
              LogLevel::info);
  return false;
}

void FileLogHandler::rotateFileLk() {
  const std::string copy = rotatedFilePath(filepath_, 1);
  cloneFile(filepath_, copy);
  if (!isOpenFileAtPathLk()) {  // somebody moved it away just now: the clone is of another file
    throw SystemError(ESTALE, descriptorText("rotateFileLk(), stat ("));
  }
  copyLateRecordsLk(copy);
  if (retryInterrupted([this] { return ::ftruncate(fd_.get(), 0); }) != 0) {
    throw lastSystemError(descriptorText("rotateFileLk(), truncate ("));
  }
  timeval now{};
  ::gettimeofday(&now, nullptr);
  if (const int error = setCreationTime(fd_.get(), {now.tv_sec, now.tv_usec * 1000})) {
    throw SystemError(error, descriptorText("rotateFileLk(), fsetattrlist ("));
  }
}

// Copying may take longer than others wait for the lock. What they then write without it goes
// along.
void FileLogHandler::copyLateRecordsLk(const std::string& copy) const {
  constexpr std::string_view caller = "rotateFileLk()";
  constexpr int rounds = 100;  // against somebody who writes faster than this copies
  std::int64_t copied = checked::fileSize(copy, caller);
  for (int round = 0; round < rounds; ++round) {
    struct stat status {};
    if (::fstat(fd_.get(), &status) != 0 || status.st_size <= copied) return;
    const UniqueFd from = checked::open(filepath_, O_RDONLY | O_NONBLOCK, 0, caller);
    const UniqueFd to = checked::open(copy, O_WRONLY | O_NONBLOCK, 0, caller);
    const std::int64_t late = status.st_size - copied;
    const CopyOutcome outcome = copyFileRange(from.get(), copied, to.get(), copied, late);
    if (outcome.error != 0) {
      throw SystemError(outcome.error, descriptorText("rotateFileLk(), copy ("));
    }
    copied = status.st_size;
  }
}

std::string FileLogHandler::descriptorText(std::string_view call) const {
  return fmt::format("{}{}[{}])", call, fd_.get(), filepath_);
}

void FileLogHandler::prepareFork() noexcept {
  changing_.lock();
}

void FileLogHandler::afterForkInParent() noexcept {
  changing_.unlock();
}

void FileLogHandler::afterForkInChild() noexcept {
  // The parent's file lock belongs to the open file description, which the child would share: it
  // would keep a dead parent's lock alive, and its own unlock would free a living parent's.
  fd_.reset();
  isForked_ = true;
  lock_.resetAfterFork();
  changing_.resetAfterFork();
}

}  // namespace velum
