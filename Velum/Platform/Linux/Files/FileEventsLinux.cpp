#include "Velum/Platform/Linux/Files/FileEventsLinux.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <mutex>
#include <utility>

#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Linux/Files/PathWatcher.h"

namespace velum {
namespace {

constexpr std::uint32_t entryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

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
  static NeverDestroyed<FileEventsLinux> instance;
  return *instance;
}

class WatchLinux final : public FileEvents::Watch {
 public:
  explicit WatchLinux(std::shared_ptr<FileWatcher> watcher) : watcher_(std::move(watcher)) {}
  WatchLinux(const WatchLinux&) = delete;
  WatchLinux& operator=(const WatchLinux&) = delete;
  ~WatchLinux() override {
    watcher_->cancel();
    registry().remove(watcher_);
  }

  bool isOutdated() const override { return registry().isOutdated(*watcher_); }

 private:
  std::shared_ptr<FileWatcher> watcher_;
};

// The code alone would read as a full disk.
SystemError watchError(int code, const char* call, const std::string& path) {
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

void FileEventsLinux::openLk() {
  if (watches_.isInherited()) {
    watches_.clear();
    ways_.clear();
    postponed_.clear();
  }
  reader_.open();
}

std::unique_ptr<FileEvents::Watch> FileEventsLinux::watch(const std::string& path, FileEvent events,
                                                          std::shared_ptr<DispatchQueue> queue,
                                                          Handler handler) {
  UniqueFd file(retryInterrupted([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC); }));
  if (!file) throw watchError(errno, "open", path);
  // Through the descriptor: the watch and the reference are of the same file, whatever happens to
  // the path in between.
  const std::string target = "/proc/self/fd/" + std::to_string(file.get());
  auto watcher = std::make_shared<OpenedFileWatcher>(events, std::move(queue), std::move(handler),
                                                     std::move(file));
  const std::lock_guard guard(lock_);
  openLk();
  watcher->descriptor = watches_.addOwn(target.c_str(), inotifyMask(events));
  if (watcher->descriptor < 0) throw watchError(errno, "inotify_add_watch", path);
  watcher->releaseFolder();
  watches_[watcher->descriptor].watchers.push_back(watcher);
  return std::make_unique<WatchLinux>(std::move(watcher));
}

std::unique_ptr<FileEvents::Watch> FileEventsLinux::watchPath(const std::string& path,
                                                              std::shared_ptr<DispatchQueue> queue,
                                                              Handler handler) {
  auto watcher = std::make_shared<PathWatcher>(ways_, path, std::move(queue), std::move(handler));
  const std::lock_guard guard(lock_);
  openLk();
  if (!watcher->watch()) {
    const int code = errno;
    watcher->leave();
    throw watchError(code, "inotify_add_watch", path);
  }
  watches_[watcher->descriptor].watchers.push_back(watcher);
  if (watcher->mayRunAnywhere()) reader_.startThread();
  return std::make_unique<WatchLinux>(std::move(watcher));
}

void FileEventsLinux::remove(const std::shared_ptr<FileWatcher>& watcher) {
  const std::lock_guard guard(lock_);
  watcher->leave();
  auto* const watched = watches_.find(watcher->descriptor);
  if (watched == nullptr) return;
  std::erase(watched->watchers, watcher);
  watches_.retireIfUnused(watcher->descriptor);
}

bool FileEventsLinux::isOutdated(FileWatcher& watcher) {
  const std::lock_guard guard(lock_);
  if (watcher.isOutdated() || watches_.isInherited()) return true;
  if (watcher.isStillThere()) return false;
  watcher.setOutdated();
  return true;
}

void FileEventsLinux::take(std::string_view events, std::unique_lock<UnfairLock> reading) {
  FileDeliveries deliveries(reading.owns_lock());
  std::unique_lock guard(lock_, std::try_to_lock);
  if (!guard && isTidying(events)) {
    postponed_.append(events);
    return;
  }
  if (!guard) guard.lock();
  takeAllLk(std::exchange(postponed_, {}), deliveries);
  takeAllLk(events, deliveries);
  guard.unlock();
  if (reading) reading.unlock();
  deliveries.run();
}

void FileEventsLinux::takeAllLk(std::string_view events, FileDeliveries& deliveries) {
  forEachEvent(events, [&](const inotify_event& event, std::string_view name) {
    takeLk(event, name, deliveries);
  });
}

void FileEventsLinux::mountsChanged() {
  FileDeliveries deliveries(false);
  const std::lock_guard guard(lock_);
  ways_.allChanged(deliveries);
}

void FileEventsLinux::takeLk(const inotify_event& event, std::string_view name,
                             FileDeliveries& deliveries) {
  constexpr std::uint32_t losses = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
  if ((event.mask & IN_Q_OVERFLOW) != 0) return tellAllLk(deliveries);
  auto* const watched = watches_.find(event.wd);
  if (watched == nullptr) return;
  // Other events with a name are of what is in a folder, not of the folder.
  const bool isOfEntry = (event.mask & entryEvents) != 0;
  if (name.empty() || isOfEntry) {
    for (const auto& watcher : watched->watchers) {
      if ((event.mask & losses) != 0) watcher->setOutdated();
      deliveries.add(*watcher, watcher->translated(event.mask));
    }
  }
  std::vector<std::shared_ptr<PathWatcher>> named;
  if (watched->names && isOfEntry) {
    const auto [begin, end] = watched->names->equal_range(name);
    for (auto at = begin; at != end; ++at) named.push_back(at->second);
  }
  std::vector<std::shared_ptr<PathWay>> changed;
  if (watched->ways) {
    std::ranges::copy_if(*watched->ways, std::back_inserter(changed), [&](const auto& way) {
      return (event.mask & losses) != 0 || way->isConcerned(event, name);
    });
  }
  if ((event.mask & IN_IGNORED) != 0) {
    for (const auto& watcher : watched->watchers) watcher->descriptor = -1;
    watches_.forget(event.wd);
  }
  for (const auto& watcher : named) watcher->nameChanged(event.mask, deliveries);
  for (const auto& way : changed) ways_.changed(*way, deliveries);
}

// Events were lost, so everything may have changed.
void FileEventsLinux::tellAllLk(FileDeliveries& deliveries) {
  for (const auto& [descriptor, watched] : watches_.all()) {
    for (const auto& watcher : watched.watchers) deliveries.add(*watcher, watcher->wanted());
  }
  ways_.allChanged(deliveries);
}

FileEvents& FileEvents::shared() {
  return registry();
}

}  // namespace velum
