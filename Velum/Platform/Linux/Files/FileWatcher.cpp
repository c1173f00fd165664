#include "Velum/Platform/Linux/Files/FileWatcher.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <utility>

namespace velum {
namespace {

// All but `extended` and `link`, which inotify does not tell from others.
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

}  // namespace

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

// Of a folder or link on the way itself, only attributes are told besides losses. A link that is
// replaced while somebody uses it shows no more than a changed number of names.
bool PathWay::isConcerned(const inotify_event& event, std::string_view entry) const {
  const auto isAwaited = [&](const auto& one) {
    return one.first == event.wd && one.second == entry;
  };
  if (entry.empty()) return (event.mask & IN_ATTRIB) != 0;
  return std::ranges::any_of(awaited, isAwaited);
}

PathWatcher::PathWatcher(std::string path, std::shared_ptr<DispatchQueue> queue,
                         FileEvents::Handler handler)
    : FileWatcher(std::move(queue), std::move(handler)),
      path_(std::move(path)),
      size_(path_.find_last_not_of('/') + 1) {
  if (size_ == 0) size_ = std::min<std::size_t>(path_.size(), 1);  // the root
}

FileEvent PathWatcher::translated(std::uint32_t mask) {
  return plainlyTranslated(mask);
}

FileEvent PathWatcher::wanted() const noexcept {
  return FileEvent::deleted | FileEvent::written | FileEvent::attribute | FileEvent::renamed |
         FileEvent::created;
}

std::string_view lastName(std::string_view path) noexcept {
  const std::string_view name = path.substr(path.find_last_of('/') + 1);
  return name == "." || name == ".." ? std::string_view() : name;
}

std::string_view folderAbove(std::string_view path) noexcept {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string_view::npos) return ".";
  const std::size_t end = path.find_last_not_of('/', slash);
  return end == std::string_view::npos ? "/" : path.substr(0, end + 1);
}

std::string pathIn(const std::string& folder, std::string_view name) {
  std::string path = folder;
  if (!path.ends_with('/')) path += '/';
  return path += name;
}

std::string takeName(std::string& path) {
  std::string name;
  do {
    path.erase(0, path.find_first_not_of('/'));
    name = path.substr(0, path.find('/'));
    path.erase(0, name.size());
  } while (name == ".");
  path.erase(0, path.find_first_not_of('/'));
  return name;
}

std::optional<std::string> linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target;  // NOLINT(*-member-init): set by the call
  const ssize_t size = ::readlink(path.c_str(), target.data(), target.size());
  if (size <= 0) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(size));
}

}  // namespace velum
