#include "Velum/Platform/FileEvents.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Velum/Platform/AtFork.h"
#include "Velum/Platform/Linux/FileWatcherLinux.h"
#include "Velum/Platform/Linux/InotifyReader.h"
#include "Velum/Platform/Posix/UniqueFd.h"
#include "Velum/SystemError.h"
#include "Velum/UnfairLock.h"

namespace velum {
namespace {

constexpr std::uint32_t entryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t anyEvent =
    entryEvents | IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
// Of a folder for the sake of a name in it; its own end and move change what the path leads to.
constexpr std::uint32_t nameEvents = entryEvents | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

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

using Watchers = std::vector<std::shared_ptr<FileWatcher>>;
using PathWatchers = std::vector<std::shared_ptr<PathWatcher>>;
// By the name each waits for. The names are parts of the watchers' paths.
using Names = std::unordered_multimap<std::string_view, std::shared_ptr<PathWatcher>>;

/// Who wants to hear of one file or folder.
struct Watched {
  Watchers watchers;
  std::unique_ptr<Names> names;  // few folders are watched for those

  bool isUnused() const { return watchers.empty() && (!names || names->empty()); }
};

/// What comes of the events of one read, besides the handlers that were scheduled.
struct Outcome {
  explicit Outcome(InotifyReader::Turn turn_) : turn(turn_) {}
  InotifyReader::Turn turn;
  std::shared_ptr<FileWatcher> first;  // to be run by the thread that reads
};

/// All watches of the process on one inotify descriptor. Watches of the same file share the
/// kernel's watch; each carries the union of what its watchers want.
///
/// The last reference to a watcher is never dropped here: it takes a queue along, which leaves the
/// fork registry, so that must not happen under anybody's lock. A watcher's owner keeps his until
/// it was removed from here, in a forked child as well.
class FileEventsLinux final : public FileEvents,
                              public ForkParticipant,
                              private InotifyReader::Sink {
 public:
  FileEventsLinux() : ForkParticipant(Stage::service) { registerForFork(); }

  std::unique_ptr<Watch> watch(const std::string& path, FileEvent events,
                               std::shared_ptr<DispatchQueue> queue, Handler handler) override;
  std::unique_ptr<Watch> watchPath(const std::string& path, std::shared_ptr<DispatchQueue> queue,
                                   Handler handler) override;
  void remove(const std::shared_ptr<FileWatcher>& watcher);
  void remove(const std::shared_ptr<PathWatcher>& watcher);

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override {
    reader_.resetAfterFork();
    lock_.resetAfterFork();
  }

 private:
  void openLk();
  int addWatchLk(const char* path, std::uint32_t mask);
  int addOwnWatchLk(const char* path, std::uint32_t mask);
  void releaseLk(int descriptor, const std::shared_ptr<FileWatcher>& watcher);
  void retireIfUnusedLk(int descriptor);
  void removeRetiredLk();
  void removeRetired();
  bool watchFolderLk(const std::shared_ptr<PathWatcher>& watcher);
  int nearestFolderLk(PathWatcher& watcher);
  int watchOfFolderLk(std::string_view folder);
  void leaveFolderLk(const std::shared_ptr<PathWatcher>& watcher);
  bool isStillThereLk(const PathWatcher& watcher);

  std::shared_ptr<FileWatcher> take(std::string_view events, InotifyReader::Turn turn) override;
  void takeAllLk(std::string_view events, Outcome& outcome);
  void takeLk(const inotify_event& event, std::string_view name, Outcome& outcome);
  void tellAllLk(Outcome& outcome);
  void nameChangedLk(const std::shared_ptr<PathWatcher>& watcher, std::uint32_t mask,
                     Outcome& outcome);
  void folderLostLk(const std::shared_ptr<PathWatcher>& watcher, Outcome& outcome);
  void pathChangedLk(PathWatcher& watcher, FileEvent events, Outcome& outcome);

  UnfairLock lock_;
  unsigned generation_ = forkGeneration();
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("FileEvents");
  InotifyReader reader_{*this, queue_};
  std::unordered_map<int, Watched> watched_;
  // Nobody wants these any more. The kernel tells of each removal, which wakes the reader: they are
  // removed together, at the latest after a moment.
  std::vector<int> retired_;
  bool isRemovalDue_ = false;
  struct {
    std::string folder;
    int descriptor = -1;
    std::chrono::steady_clock::time_point moment;
  } latest_;
  std::string postponed_;  // events that can wait for the next ones; the reader's own
};

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

  bool isOutdated() const noexcept override { return watcher_->isOutdated(); }

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

bool exists(std::string_view path) {
  return ::access(std::string(path).c_str(), F_OK) == 0;
}

bool isFolder(std::string_view path) {
  struct stat status {};
  return ::stat(std::string(path).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Copies, because watchers change folders meanwhile.
PathWatchers named(const Names& names, std::string_view name) {
  PathWatchers watchers;
  const auto [begin, end] = names.equal_range(name);
  std::transform(begin, end, std::back_inserter(watchers),
                 [](auto& entry) { return entry.second; });
  return watchers;
}
PathWatchers all(const Names& names) {
  PathWatchers watchers;
  for (const auto& [name, watcher] : names) watchers.push_back(watcher);
  return watchers;
}

void deliver(FileWatcher& watcher, FileEvent events, Outcome& outcome) {
  if (events == FileEvent::none || !watcher.add(events)) return;
  if (outcome.turn == InotifyReader::Turn::own && !outcome.first && watcher.mayRunAnywhere()) {
    outcome.first = watcher.shared_from_this();
  } else {
    watcher.schedule();
  }
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

void FileEventsLinux::openLk() {
  if (std::exchange(generation_, forkGeneration()) != forkGeneration()) {
    watched_.clear();  // the parent's
    retired_.clear();
    isRemovalDue_ = false;
    latest_.descriptor = -1;
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
  watcher->descriptor = addOwnWatchLk(path.c_str(), anyEvent);
  if (watcher->descriptor < 0) throw watchError("inotify_add_watch", path);
  watched_[watcher->descriptor].watchers.push_back(watcher);
  watchFolderLk(watcher);
  if (watcher->folderDescriptor == -ENOSPC) {
    releaseLk(watcher->descriptor, watcher);
    errno = ENOSPC;
    throw watchError("inotify_add_watch", std::string(folderAbove(watcher->path())));
  }
  if (watcher->mayRunAnywhere()) reader_.startThread();
  return std::make_unique<WatchLinux<PathWatcher>>(std::move(watcher));
}

void FileEventsLinux::remove(const std::shared_ptr<FileWatcher>& watcher) {
  const std::lock_guard guard(lock_);
  releaseLk(watcher->descriptor, watcher);
}

void FileEventsLinux::remove(const std::shared_ptr<PathWatcher>& watcher) {
  const std::lock_guard guard(lock_);
  leaveFolderLk(watcher);
  releaseLk(watcher->descriptor, watcher);
}

void FileEventsLinux::releaseLk(int descriptor, const std::shared_ptr<FileWatcher>& watcher) {
  const auto entry = watched_.find(descriptor);
  if (entry == watched_.end()) return;
  std::erase(entry->second.watchers, watcher);
  retireIfUnusedLk(descriptor);
}

void FileEventsLinux::retireIfUnusedLk(int descriptor) {
  constexpr std::size_t most = 64;
  if (generation_ != forkGeneration()) return;  // the kernel's watches are the parent's
  const auto entry = watched_.find(descriptor);
  if (entry == watched_.end() || !entry->second.isUnused()) return;
  retired_.push_back(descriptor);
  if (retired_.size() >= most) return removeRetiredLk();
  if (std::exchange(isRemovalDue_, true)) return;
  queue_->asyncAfter(std::chrono::milliseconds(100), [this] { removeRetired(); });
}

void FileEventsLinux::removeRetiredLk() {
  for (const int descriptor : retired_) {
    const auto entry = watched_.find(descriptor);
    if (entry == watched_.end() || !entry->second.isUnused()) continue;  // wanted again
    // Fails when the kernel already dropped the watch together with its file.
    static_cast<void>(::inotify_rm_watch(reader_.descriptor(), descriptor));
    watched_.erase(entry);
  }
  retired_.clear();
}

void FileEventsLinux::removeRetired() {
  const std::lock_guard guard(lock_);
  isRemovalDue_ = false;
  removeRetiredLk();
}

// Watches the folder above the path, or the nearest one that is there. True when that is the one
// above. Without a folder that can be read, only the end of what stands at the path is told.
bool FileEventsLinux::watchFolderLk(const std::shared_ptr<PathWatcher>& watcher) {
  constexpr int attempts = 100;  // against somebody who makes and removes folders on the way
  for (int attempt = 0; attempt < attempts; ++attempt) {
    leaveFolderLk(watcher);
    watcher->folderDescriptor = nearestFolderLk(*watcher);
    if (watcher->folderDescriptor < 0) return false;
    auto& names = watched_[watcher->folderDescriptor].names;
    if (!names) names = std::make_unique<Names>();
    names->emplace(lastName(watcher->awaited), watcher);
    if (watcher->awaited == watcher->path()) return true;
    // It may have come between the two looks.
    if (!isFolder(watcher->awaited)) return false;
  }
  return false;
}

int FileEventsLinux::nearestFolderLk(PathWatcher& watcher) {
  watcher.awaited = watcher.path();
  while (!lastName(watcher.awaited).empty()) {
    const std::string_view folder = folderAbove(watcher.awaited);
    const int descriptor = watchOfFolderLk(folder);
    if (descriptor >= 0) return descriptor;
    if (errno != ENOENT && errno != ENOTDIR) return -errno;
    watcher.awaited = folder;
  }
  return -ENOENT;
}

// Many paths of one folder are watched one after the other: it is not looked up each time. Should
// it have been moved in between, its event is on its way, and will be taken for these paths too.
int FileEventsLinux::watchOfFolderLk(std::string_view folder) {
  constexpr std::chrono::milliseconds shelfLife{1};
  const auto now = std::chrono::steady_clock::now();
  if (folder == latest_.folder && now - latest_.moment < shelfLife) {
    const auto entry = watched_.find(latest_.descriptor);
    if (entry != watched_.end() && !entry->second.isUnused()) return latest_.descriptor;
  }
  latest_ = {std::string(folder), -1, now};
  latest_.descriptor = addWatchLk(latest_.folder.c_str(), nameEvents);
  return latest_.descriptor;
}

void FileEventsLinux::leaveFolderLk(const std::shared_ptr<PathWatcher>& watcher) {
  const auto entry = watched_.find(std::exchange(watcher->folderDescriptor, -1));
  if (entry == watched_.end() || !entry->second.names) return;
  auto& names = *entry->second.names;
  const auto [begin, end] = names.equal_range(lastName(watcher->awaited));
  const auto place =
      std::find_if(begin, end, [&](const auto& name) { return name.second == watcher; });
  if (place != end) names.erase(place);
  retireIfUnusedLk(entry->first);
}

// The kernel knows a file by its watch: the same answer for the path means the same file.
bool FileEventsLinux::isStillThereLk(const PathWatcher& watcher) {
  const int now = addWatchLk(std::string(watcher.path()).c_str(), anyEvent);
  if (now >= 0 && !watched_.contains(now)) ::inotify_rm_watch(reader_.descriptor(), now);
  return now >= 0 && now == watcher.descriptor;
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

void FileEventsLinux::takeLk(const inotify_event& event, std::string_view name, Outcome& outcome) {
  constexpr std::uint32_t losses = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
  if ((event.mask & IN_Q_OVERFLOW) != 0) return tellAllLk(outcome);
  const auto entry = watched_.find(event.wd);
  if (entry == watched_.end()) return;
  Watched& watched = entry->second;
  for (const auto& watcher : watched.watchers) {
    if ((event.mask & losses) != 0) watcher->setOutdated();
    deliver(*watcher, watcher->translated(event.mask), outcome);
  }
  if ((event.mask & IN_IGNORED) != 0) {
    for (const auto& watcher : std::exchange(watched.watchers, {})) watcher->descriptor = -1;
  }
  if ((event.mask & losses) != 0 && event.wd == latest_.descriptor) latest_.descriptor = -1;
  if (watched.names && (event.mask & entryEvents) != 0) {
    for (const auto& watcher : named(*watched.names, name)) {
      nameChangedLk(watcher, event.mask, outcome);
    }
  } else if (watched.names && (event.mask & losses) != 0) {
    for (const auto& watcher : all(*watched.names)) folderLostLk(watcher, outcome);
  }
  if ((event.mask & IN_IGNORED) != 0) watched_.erase(event.wd);
}

// Events were lost, so everything may have changed.
void FileEventsLinux::tellAllLk(Outcome& outcome) {
  PathWatchers byName;
  for (const auto& [descriptor, watched] : watched_) {
    for (const auto& watcher : watched.watchers) deliver(*watcher, watcher->wanted(), outcome);
    if (!watched.names) continue;
    for (auto& watcher : all(*watched.names)) byName.push_back(std::move(watcher));
  }
  for (const auto& watcher : byName) {
    watchFolderLk(watcher);
    pathChangedLk(*watcher, watcher->wanted(), outcome);
  }
}

void FileEventsLinux::nameChangedLk(const std::shared_ptr<PathWatcher>& watcher, std::uint32_t mask,
                                    Outcome& outcome) {
  if (watcher->awaited != watcher->path()) {  // a folder on the way
    if (watchFolderLk(watcher) && exists(watcher->path())) {
      pathChangedLk(*watcher, FileEvent::created, outcome);
    }
  } else if ((mask & (IN_CREATE | IN_MOVED_TO)) != 0) {
    pathChangedLk(*watcher, FileEvent::created, outcome);
  } else {
    pathChangedLk(*watcher, (mask & IN_DELETE) != 0 ? FileEvent::deleted : FileEvent::renamed,
                  outcome);
  }
}

// The folder above a name was moved or is gone; another one may have taken its place.
void FileEventsLinux::folderLostLk(const std::shared_ptr<PathWatcher>& watcher, Outcome& outcome) {
  if (watchFolderLk(watcher) && exists(watcher->path())) {
    pathChangedLk(*watcher, FileEvent::created, outcome);
  } else if (!watcher->isOutdated()) {
    pathChangedLk(*watcher, FileEvent::renamed, outcome);
  }
}

// Unless it is the same file still: the event may be older than the watch.
void FileEventsLinux::pathChangedLk(PathWatcher& watcher, FileEvent events, Outcome& outcome) {
  if (!watcher.isOutdated() && isStillThereLk(watcher)) return;
  watcher.setOutdated();
  deliver(watcher, events, outcome);
}

}  // namespace

FileEvents& FileEvents::shared() {
  return registry();
}

}  // namespace velum
