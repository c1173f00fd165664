#include "Velum/Platform/Linux/Files/FileEventsLinux.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <type_traits>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

constexpr std::uint32_t entryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t anyEvent = entryEvents | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

std::uint32_t inotifyMask(FileEvent events) noexcept {
  // A file that is still open loses its last name without IN_DELETE_SELF; only its changed link
  // count tells, as an attribute event.
  constexpr FileEvent byAttribute = FileEvent::deleted | FileEvent::attribute | FileEvent::link;
  std::uint32_t mask = 0;
  if (has(events, byAttribute)) mask |= IN_ATTRIB;
  if (has(events, FileEvent::deleted)) mask |= IN_DELETE_SELF;
  if (has(events, FileEvent::renamed)) mask |= IN_MOVE_SELF;
  if (has(events, FileEvent::written | FileEvent::extended)) mask |= IN_MODIFY | entryEvents;
  return mask;
}

FileEventsLinux& registry() {
  static FileEventsLinux& instance =
      *new FileEventsLinux;  // NOLINT(*-owning-memory): never destroyed
  return instance;
}

template <class Watcher>
class WatchLinux final : public FileEvents::Watch {
 public:
  explicit WatchLinux(std::shared_ptr<Watcher> watcher) : watcher_(std::move(watcher)) {}
  WatchLinux(const WatchLinux&) = delete;
  WatchLinux& operator=(const WatchLinux&) = delete;
  ~WatchLinux() override {
    watcher_->cancel();
    registry().remove(watcher_);
  }

  bool isOutdated() const override {
    if constexpr (std::is_same_v<Watcher, PathWatcher>) return registry().isOutdated(*watcher_);
    return watcher_->isOutdated();
  }

 private:
  std::shared_ptr<Watcher> watcher_;
};

// The code alone would read as a full disk.
SystemError watchError(const char* call, const std::string& path) {
  const int code = errno;
  const char* const hint =
      code == ENOSPC ? " (this user has as many watches as fs.inotify.max_user_watches allows)"
                     : "";
  return {code, std::string("watch(_:), ") + call + " (" + path + ')' + hint};
}

template <class Use>
void forEachEvent(std::string_view events, Use use) {
  while (events.size() >= sizeof(inotify_event)) {
    inotify_event event{};
    std::memcpy(&event, events.data(), sizeof event);
    const std::string_view name = events.substr(sizeof event, event.len);
    use(event, name.substr(0, name.find('\0')));
    events.remove_prefix(sizeof event + event.len);
  }
}

// Whether they only tell of watches that are no more, mostly because they were removed here. A
// thread that removes thousands shall not have to wait for them to be read.
bool isTidying(std::string_view events) {
  bool isTidying = true;
  forEachEvent(events, [&](const inotify_event& event, std::string_view /*name*/) {
    isTidying = isTidying && event.mask == IN_IGNORED;
  });
  return isTidying;
}

}  // namespace

void FileEventsLinux::deliver(FileWatcher& watcher, FileEvent events, Outcome& outcome) {
  if (events == FileEvent::none || !watcher.add(events)) return;
  if (outcome.turn == InotifyReader::Turn::own && !outcome.first && watcher.mayRunAnywhere()) {
    outcome.first = watcher.shared_from_this();
  } else {
    watcher.schedule();
  }
}

void FileEventsLinux::openLk() {
  if (std::exchange(generation_, forkGeneration()) != forkGeneration()) {
    watched_.clear();  // the parent's
    retired_.clear();
    isRemovalDue_ = false;
    ways_.clear();
    latest_.way.reset();
    postponed_.clear();
  }
  reader_.open();
}

int FileEventsLinux::addWatchLk(const char* path, std::uint32_t mask) {
  const auto add = [&] {
    return ::inotify_add_watch(reader_.descriptor(), path, mask | IN_MASK_ADD);
  };
  int descriptor = add();
  if (descriptor < 0 && errno == ENOSPC && !retired_.empty()) {
    removeRetiredLk();
    descriptor = add();
  }
  return descriptor;
}

// A watch that is to tell nothing from before this call, as a retired one would.
int FileEventsLinux::addOwnWatchLk(const char* path, std::uint32_t mask) {
  const int descriptor = addWatchLk(path, mask);
  const auto entry = watched_.find(descriptor);
  if (entry == watched_.end() || !entry->second.isUnused()) return descriptor;
  removeRetiredLk();
  return addWatchLk(path, mask);
}

std::unique_ptr<FileEvents::Watch> FileEventsLinux::watch(const std::string& path, FileEvent events,
                                                          std::shared_ptr<DispatchQueue> queue,
                                                          Handler handler) {
  UniqueFd file(retryInterrupted([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC); }));
  if (!file) throw watchError("open", path);
  // Through the descriptor: the watch and the reference are of the same file, whatever happens to
  // the path in between.
  const std::string target = "/proc/self/fd/" + std::to_string(file.get());
  auto watcher = std::make_shared<OpenedFileWatcher>(events, std::move(queue), std::move(handler),
                                                     std::move(file));
  const std::lock_guard guard(lock_);
  openLk();
  watcher->descriptor = addOwnWatchLk(target.c_str(), inotifyMask(events));
  if (watcher->descriptor < 0) throw watchError("inotify_add_watch", path);
  watcher->releaseFolder();
  watched_[watcher->descriptor].watchers.push_back(watcher);
  return std::make_unique<WatchLinux<FileWatcher>>(std::move(watcher));
}

std::unique_ptr<FileEvents::Watch> FileEventsLinux::watchPath(const std::string& path,
                                                              std::shared_ptr<DispatchQueue> queue,
                                                              Handler handler) {
  auto watcher = std::make_shared<PathWatcher>(path, std::move(queue), std::move(handler));
  const std::lock_guard guard(lock_);
  openLk();
  watcher->descriptor = watchOwnLk(watcher);
  if (watcher->descriptor < 0) {
    const int code = errno;
    leaveWayLk(watcher);
    errno = code;
    throw watchError("inotify_add_watch", path);
  }
  watched_[watcher->descriptor].watchers.push_back(watcher);
  if (watcher->mayRunAnywhere()) reader_.startThread();
  return std::make_unique<WatchLinux<PathWatcher>>(std::move(watcher));
}

// The way first: what changes on it from now on is told, also while the next call goes it. What
// changes in the content of a folder's files is nothing to the folder.
int FileEventsLinux::watchOwnLk(const std::shared_ptr<PathWatcher>& watcher) {
  const std::string path(watcher->path());
  const bool hasName = takeFolderWayLk(watcher);
  const auto add = [&](std::uint32_t mask) {
    if (!watcher->way->isRefused) return addOwnWatchLk(path.c_str(), anyEvent | mask);
    errno = ENOSPC;
    return -1;
  };
  int descriptor = add(IN_ONLYDIR | (hasName ? IN_DONT_FOLLOW : 0));
  if (descriptor >= 0 || errno != ENOTDIR) return descriptor;
  takeWayLk(watcher);
  descriptor = add(IN_ONLYDIR);
  return descriptor < 0 && errno == ENOTDIR ? add(IN_MODIFY) : descriptor;
}

void FileEventsLinux::remove(const std::shared_ptr<FileWatcher>& watcher) {
  const std::lock_guard guard(lock_);
  releaseLk(watcher->descriptor, watcher);
}

void FileEventsLinux::remove(const std::shared_ptr<PathWatcher>& watcher) {
  const std::lock_guard guard(lock_);
  leaveWayLk(watcher);
  releaseLk(watcher->descriptor, watcher);
}

void FileEventsLinux::releaseLk(int descriptor, const std::shared_ptr<FileWatcher>& watcher) {
  const auto entry = watched_.find(descriptor);
  if (entry == watched_.end()) return;
  std::erase(entry->second.watchers, watcher);
  retireIfUnusedLk(descriptor);
}

void FileEventsLinux::retireIfUnusedLk(int descriptor) {
  constexpr std::size_t most = 256;
  if (generation_ != forkGeneration()) return;  // the kernel's watches are the parent's
  const auto entry = watched_.find(descriptor);
  if (entry == watched_.end() || !entry->second.isUnused()) return;
  retired_.push_back(descriptor);
  if (retired_.size() >= most) return removeRetiredLk();
  if (std::exchange(isRemovalDue_, true)) return;
  queue_->asyncAfter(std::chrono::milliseconds(100), [this] { removeRetired(); });
}

void FileEventsLinux::removeRetiredLk() {
  // Each of them makes an event, for which a thread would be woken that takes the kernel's lock.
  constexpr std::size_t many = 8;
  const bool isPaused = retired_.size() >= many;
  if (isPaused) reader_.pause();
  for (const int descriptor : retired_) {
    const auto entry = watched_.find(descriptor);
    if (entry == watched_.end() || !entry->second.isUnused()) continue;  // wanted again
    // Fails when the kernel already dropped the watch together with its file.
    static_cast<void>(::inotify_rm_watch(reader_.descriptor(), descriptor));
    watched_.erase(entry);
  }
  retired_.clear();
  if (isPaused) reader_.resume();
}

void FileEventsLinux::removeRetired() {
  const std::lock_guard guard(lock_);
  isRemovalDue_ = false;
  removeRetiredLk();
}

std::shared_ptr<FileWatcher> FileEventsLinux::take(std::string_view events,
                                                   InotifyReader::Turn turn) {
  Outcome outcome(turn);
  std::unique_lock guard(lock_, std::try_to_lock);
  if (!guard && isTidying(events)) {
    postponed_.append(events);
    return nullptr;
  }
  if (!guard) guard.lock();
  takeAllLk(std::exchange(postponed_, {}), outcome);
  takeAllLk(events, outcome);
  return std::move(outcome.first);
}

void FileEventsLinux::takeAllLk(std::string_view events, Outcome& outcome) {
  forEachEvent(events, [&](const inotify_event& event, std::string_view name) {
    takeLk(event, name, outcome);
  });
}

void FileEventsLinux::mountsChanged() {
  Outcome outcome(InotifyReader::Turn::pool);
  const std::lock_guard guard(lock_);
  lookAgainAtAllLk(outcome);
}

void FileEventsLinux::resumeReading() {
  const std::lock_guard guard(lock_);
  if (generation_ == forkGeneration()) reader_.resume();
}

void FileEventsLinux::takeLk(const inotify_event& event, std::string_view name, Outcome& outcome) {
  constexpr std::uint32_t losses = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
  if ((event.mask & IN_Q_OVERFLOW) != 0) return tellAllLk(outcome);
  const auto entry = watched_.find(event.wd);
  if (entry == watched_.end()) return;
  Watched& watched = entry->second;
  // Other events with a name are of what is in a folder, not of the folder.
  const bool isOfEntry = (event.mask & entryEvents) != 0;
  if (name.empty() || isOfEntry) {
    for (const auto& watcher : watched.watchers) {
      if ((event.mask & losses) != 0) watcher->setOutdated();
      deliver(*watcher, watcher->translated(event.mask), outcome);
    }
  }
  std::vector<std::shared_ptr<PathWatcher>> named;
  if (watched.names && isOfEntry) {
    const auto [begin, end] = watched.names->equal_range(name);
    for (auto at = begin; at != end; ++at) named.push_back(at->second);
  }
  std::vector<std::shared_ptr<PathWay>> changed;
  if (watched.ways) {
    std::ranges::copy_if(*watched.ways, std::back_inserter(changed), [&](const auto& way) {
      return (event.mask & losses) != 0 || way->isConcerned(event, name);
    });
  }
  if ((event.mask & IN_IGNORED) != 0) {
    for (const auto& watcher : watched.watchers) watcher->descriptor = -1;
    watched_.erase(entry);
  }
  for (const auto& watcher : named) nameChangedLk(watcher, event.mask, outcome);
  for (const auto& way : changed) wayChangedLk(*way, outcome);
}

// Events were lost, so everything may have changed.
void FileEventsLinux::tellAllLk(Outcome& outcome) {
  for (const auto& [descriptor, watched] : watched_) {
    for (const auto& watcher : watched.watchers) deliver(*watcher, watcher->wanted(), outcome);
  }
  lookAgainAtAllLk(outcome);
}

FileEvents& FileEvents::shared() {
  return registry();
}

}  // namespace velum
