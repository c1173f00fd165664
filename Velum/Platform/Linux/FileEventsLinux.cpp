#include "Velum/Platform/FileEvents.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Velum/Platform/AtFork.h"
#include "Velum/Platform/Posix/UniqueFd.h"
#include "Velum/SystemError.h"
#include "Velum/UnfairLock.h"

namespace velum {
namespace {

constexpr FileEvent allEvents = FileEvent::deleted | FileEvent::written | FileEvent::extended |
                                FileEvent::attribute | FileEvent::link | FileEvent::renamed |
                                FileEvent::revoked;

constexpr bool has(FileEvent set, FileEvent bit) noexcept {
  return (set & bit) != FileEvent::none;
}

std::uint32_t inotifyMask(FileEvent events) noexcept {
  // A file that is still open loses its last name without IN_DELETE_SELF; only its changed link
  // count tells, as an attribute event.
  constexpr FileEvent byAttribute = FileEvent::deleted | FileEvent::attribute | FileEvent::link;
  std::uint32_t mask = 0;
  if (has(events, byAttribute)) mask |= IN_ATTRIB;
  if (has(events, FileEvent::deleted)) mask |= IN_DELETE_SELF;
  if (has(events, FileEvent::renamed)) mask |= IN_MOVE_SELF;
  if (has(events, FileEvent::written | FileEvent::extended)) {
    mask |= IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
  }
  return mask;
}

/// One watcher of one file. Shared by the registry and by deliveries on their way.
struct Watcher {
  Watcher(FileEvent wanted, std::shared_ptr<DispatchQueue> target, FileEvents::Handler callback,
          UniqueFd file)
      : events(wanted),
        queue(std::move(target)),
        handler(std::move(callback)),
        file_(std::move(file)) {
    if (struct stat status{}; ::fstat(file_.get(), &status) == 0) links_ = status.st_nlink;
  }

  /// To be called once the watch is there. A folder's end is only reported when nothing refers to
  /// it any more, while a file's is seen by its links.
  void releaseFolder() {
    struct stat status {};
    if (::fstat(file_.get(), &status) == 0 && S_ISDIR(status.st_mode)) file_.reset();
  }

  /// What an inotify event means for this watcher.
  FileEvent translated(std::uint32_t mask) {
    FileEvent happened = FileEvent::none;
    constexpr std::uint32_t entries = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
    if ((mask & (IN_MODIFY | entries)) != 0) happened = happened | FileEvent::written;
    if ((mask & IN_DELETE_SELF) != 0) happened = happened | FileEvent::deleted;
    if ((mask & IN_MOVE_SELF) != 0) happened = happened | FileEvent::renamed;
    if ((mask & IN_UNMOUNT) != 0) happened = happened | FileEvent::revoked;
    if ((mask & IN_ATTRIB) != 0) happened = happened | FileEvent::attribute | linkChange();
    return happened & events;
  }

  FileEvent events;
  std::shared_ptr<DispatchQueue> queue;
  FileEvents::Handler handler;
  std::atomic<bool> isCancelled{false};

 private:
  FileEvent linkChange() {
    struct stat status {};
    if (::fstat(file_.get(), &status) != 0 || status.st_nlink == links_) return FileEvent::none;
    links_ = status.st_nlink;
    return links_ == 0 ? FileEvent::deleted | FileEvent::link : FileEvent::link;
  }

  UniqueFd file_;  // a bare reference to the file (O_PATH)
  nlink_t links_ = 0;
};

void deliver(const std::shared_ptr<Watcher>& watcher, FileEvent events) {
  if (events == FileEvent::none) return;
  watcher->queue->async([watcher, events] {
    if (!watcher->isCancelled.load(std::memory_order_acquire)) watcher->handler(events);
  });
}

using Watchers = std::vector<std::shared_ptr<Watcher>>;

/// All watches of the process on one inotify descriptor. Watches of the same file share the
/// kernel's watch; each carries the union of what its watchers want.
///
/// Whatever may be the last reference to a watcher is dropped after the lock: it takes a queue
/// along, which leaves the fork registry.
class FileEventsLinux final : public FileEvents, public ForkParticipant {
 public:
  FileEventsLinux() : ForkParticipant(Stage::service) { registerForFork(); }

  std::unique_ptr<Watch> watch(const std::string& path, FileEvent events,
                               std::shared_ptr<DispatchQueue> queue, Handler handler) override;
  void remove(int descriptor, const std::shared_ptr<Watcher>& watcher);

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override {
    // The parent reads this descriptor's events; a child that read along would steal them.
    inotify_.reset();
    lock_.resetAfterFork();
  }

 private:
  void openLk();
  void read();
  Watchers dispatchLk(const inotify_event& event);

  UnfairLock lock_;
  UniqueFd inotify_;
  unsigned generation_ = forkGeneration();
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("FileEvents");
  std::unique_ptr<DispatchSource> source_;
  std::unordered_map<int, Watchers> watchers_;
};

FileEventsLinux& registry() {
  static FileEventsLinux& instance =
      *new FileEventsLinux;  // NOLINT(*-owning-memory): never destroyed
  return instance;
}

class WatchLinux final : public FileEvents::Watch {
 public:
  WatchLinux(int descriptor, std::shared_ptr<Watcher> watcher)
      : descriptor_(descriptor), watcher_(std::move(watcher)) {}
  WatchLinux(const WatchLinux&) = delete;
  WatchLinux& operator=(const WatchLinux&) = delete;
  ~WatchLinux() override {
    watcher_->isCancelled.store(true, std::memory_order_release);
    if (generation_ == forkGeneration()) registry().remove(descriptor_, watcher_);
  }

 private:
  int descriptor_;
  std::shared_ptr<Watcher> watcher_;
  unsigned generation_ = forkGeneration();
};

SystemError watchError(const std::string& call, const std::string& path) {
  return lastSystemError("watch(_:), " + call + " (" + path + ")");
}

void FileEventsLinux::openLk() {
  if (inotify_) return;
  UniqueFd fresh(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!fresh) throw watchError("inotify_init1", "");
  source_ = DispatchSource::readable(fresh.get(), *queue_, [this] { read(); });
  inotify_ = std::move(fresh);
}

std::unique_ptr<FileEvents::Watch> FileEventsLinux::watch(const std::string& path, FileEvent events,
                                                          std::shared_ptr<DispatchQueue> queue,
                                                          Handler handler) {
  UniqueFd file(retryInterrupted([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC); }));
  if (!file) throw watchError("open", path);
  // Through the descriptor: the watch and the reference are of the same file, whatever happens to
  // the path in between.
  const std::string target = "/proc/self/fd/" + std::to_string(file.get());
  auto watcher =
      std::make_shared<Watcher>(events, std::move(queue), std::move(handler), std::move(file));
  std::unordered_map<int, Watchers> inherited;
  const std::lock_guard guard(lock_);
  if (std::exchange(generation_, forkGeneration()) != forkGeneration()) inherited.swap(watchers_);
  openLk();
  const int descriptor =
      ::inotify_add_watch(inotify_.get(), target.c_str(), inotifyMask(events) | IN_MASK_ADD);
  if (descriptor < 0) throw watchError("inotify_add_watch", path);
  watcher->releaseFolder();
  watchers_[descriptor].push_back(watcher);
  return std::make_unique<WatchLinux>(descriptor, std::move(watcher));
}

void FileEventsLinux::remove(int descriptor, const std::shared_ptr<Watcher>& watcher) {
  const std::lock_guard guard(lock_);
  const auto entry = watchers_.find(descriptor);
  if (entry == watchers_.end()) return;
  std::erase(entry->second, watcher);
  if (!entry->second.empty()) return;
  watchers_.erase(entry);
  // Fails when the kernel already dropped the watch together with its file.
  static_cast<void>(::inotify_rm_watch(inotify_.get(), descriptor));
}

// Returns the watchers that no longer have a watch.
Watchers FileEventsLinux::dispatchLk(const inotify_event& event) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) {
    for (const auto& [descriptor, watchers] : watchers_) {
      for (const auto& watcher : watchers) deliver(watcher, watcher->events & allEvents);
    }
    return {};
  }
  const auto entry = watchers_.find(event.wd);
  if (entry == watchers_.end()) return {};
  for (const auto& watcher : entry->second) deliver(watcher, watcher->translated(event.mask));
  if ((event.mask & IN_IGNORED) == 0) return {};
  return std::move(watchers_.extract(entry).mapped());
}

void FileEventsLinux::read() {
  alignas(inotify_event) std::array<char, 16384> buffer{};
  std::vector<Watchers> dropped;
  const std::lock_guard guard(lock_);
  while (true) {
    const ssize_t size =
        retryInterrupted([&] { return ::read(inotify_.get(), buffer.data(), buffer.size()); });
    if (size <= 0) return;
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(size);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + offset, sizeof event);
      dropped.push_back(dispatchLk(event));
      offset += sizeof event + event.len;
    }
  }
}

}  // namespace

FileEvents& FileEvents::shared() {
  return registry();
}

}  // namespace velum
