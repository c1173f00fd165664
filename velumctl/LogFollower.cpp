#include "velumctl/LogFollower.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/LogSearch.h"

namespace velumctl {

using velum::FileEvent;

LogFollower::LogFollower(std::string path, std::optional<LogFile> live, RecordParser& parser,
                         std::function<void()> flush)
    : path_(std::move(path)),
      parser_(parser),
      flush_(std::move(flush)),
      buffer_(velum::LogReader::bufferSize),
      queue_(velum::DispatchQueue::serial("LogFollower")),
      first_(std::move(live)) {}

void LogFollower::run() {
  auto failure = failure_.get_future();
  queue_->async([self = shared_from_this()] { self->start(); });
  failure.get();
  std::abort();  // the promise is kept by exceptions only
}

void LogFollower::start() try {
  const std::string folder = std::filesystem::path(path_).parent_path().string();
  folderWatch_ = velum::FileEvents::shared().watch(folder.empty() ? "." : folder,
                                                   FileEvent::written, queue_, handler());
  if (first_ && !adopt(*first_)) {  // deleted already: what it held is shown all the same
    previous_ = std::make_unique<Followed>(Followed{std::move(*first_), nullptr});
  }
  first_.reset();
  look();
} catch (...) {
  hasFailed_ = true;
  failure_.set_exception(std::current_exception());
}

velum::FileEvents::Handler LogFollower::handler() {
  return [weak = weak_from_this()](FileEvent) {
    if (const auto self = weak.lock()) self->lookSafely();
  };
}

void LogFollower::lookSafely() try {
  if (!hasFailed_) look();
} catch (...) {
  hasFailed_ = true;
  failure_.set_exception(std::current_exception());
}

void LogFollower::look() {
  if (previous_) readNew(*previous_);
  if (live_) readNew(*live_);
  while (!live_ || !live_->file.isAtItsPath()) {
    auto file = LogFile::open(path_);
    if (!file || !adopt(*file)) break;  // the folder's event tells of the next file
    if (previous_) readNew(*previous_);
    readNew(*live_);
  }
  flush_();
}

// Watches the file and makes it the live one; false when it is gone from its path already.
bool LogFollower::adopt(LogFile& file) try {
  constexpr FileEvent events = FileEvent::written | FileEvent::attribute | FileEvent::link |
                               FileEvent::deleted | FileEvent::renamed;
  auto watch = velum::FileEvents::shared().watch(path_, events, queue_, handler());
  // A watch of another file is no use: as long as this one is not at its path, it is looked for.
  if (!file.isAtItsPath()) return false;
  previous_ = std::move(live_);
  live_ = std::make_unique<Followed>(Followed{std::move(file), std::move(watch)});
  return true;
} catch (const velum::SystemError& error) {
  if (error.code() == ENOENT) return false;
  throw;
}

void LogFollower::readNew(Followed& followed) {
  LogFile& file = followed.file;
  bool isIntact = true;
  std::int64_t size = file.completeSize(isIntact);
  while (true) {
    if (isIntact) {
      file.setEnd(size);
      if (file.read(buffer_, parser_)) break;
    }
    // Emptied: the rest of what it held is in the rotated copy, unless somebody threw it away.
    if (auto copy = file.rotatedCopy()) copy->read(buffer_, parser_);
    parser_.finish();
    file.restart();
    size = file.completeSize(isIntact);
  }
  parser_.finish();
}

}  // namespace velumctl
