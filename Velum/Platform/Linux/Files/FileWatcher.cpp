#include "Velum/Platform/Linux/Files/FileWatcher.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <utility>

namespace velum {

FileEvent plainlyTranslated(std::uint32_t mask) noexcept {
  constexpr std::uint32_t entries = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
  FileEvent happened = FileEvent::none;
  if ((mask & (IN_MODIFY | entries)) != 0) happened = happened | FileEvent::written;
  if ((mask & IN_ATTRIB) != 0) happened = happened | FileEvent::attribute;
  if ((mask & IN_DELETE_SELF) != 0) happened = happened | FileEvent::deleted;
  if ((mask & IN_MOVE_SELF) != 0) happened = happened | FileEvent::renamed;
  if ((mask & IN_UNMOUNT) != 0) happened = happened | FileEvent::revoked;
  return happened;
}

FileWatcher::FileWatcher(std::shared_ptr<DispatchQueue> queue, FileEvents::Handler handler)
    : queue_(std::move(queue)), handler_(std::move(handler)) {}

bool FileWatcher::add(FileEvent events) noexcept {
  const unsigned before =
      state_.fetch_or(static_cast<unsigned>(events) | isDue, std::memory_order_acq_rel);
  return (before & isDue) == 0;
}

void FileWatcher::schedule() {
  queue_->async([self = shared_from_this()] { self->run(); });
}

void FileWatcher::run() noexcept {
  const unsigned events = state_.exchange(isDue, std::memory_order_acq_rel) & ~isDue;
  if (!isCancelled_.load(std::memory_order_acquire)) handler_(static_cast<FileEvent>(events));
  unsigned nothingMore = isDue;
  if (state_.compare_exchange_strong(nothingMore, 0, std::memory_order_acq_rel)) return;
  // Behind what waits in the queue, so that a busy file keeps no thread to itself.
  schedule();
}

OpenedFileWatcher::OpenedFileWatcher(FileEvent wanted, std::shared_ptr<DispatchQueue> queue,
                                     FileEvents::Handler handler, UniqueFd file)
    : FileWatcher(std::move(queue), std::move(handler)), wanted_(wanted), file_(std::move(file)) {
  if (struct stat status{}; ::fstat(file_.get(), &status) == 0) links_ = status.st_nlink;
}

void OpenedFileWatcher::releaseFolder() {
  struct stat status {};
  if (::fstat(file_.get(), &status) == 0 && S_ISDIR(status.st_mode)) file_.reset();
}

FileEvent OpenedFileWatcher::translated(std::uint32_t mask) {
  FileEvent happened = plainlyTranslated(mask);
  if (has(happened, FileEvent::attribute)) happened = happened | linkChange();
  return happened & wanted_;
}

FileEvent OpenedFileWatcher::linkChange() {
  struct stat status {};
  if (::fstat(file_.get(), &status) != 0 || status.st_nlink == links_) return FileEvent::none;
  links_ = status.st_nlink;
  return links_ == 0 ? FileEvent::deleted | FileEvent::link : FileEvent::link;
}

void FileDeliveries::add(FileWatcher& watcher, FileEvent events) {
  if (events == FileEvent::none || !watcher.add(events)) return;
  if (mayRunOne_ && !first_ && watcher.mayRunAnywhere()) {
    first_ = watcher.shared_from_this();
  } else {
    watcher.schedule();
  }
}

}  // namespace velum
