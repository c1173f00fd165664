#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/FileEvents.h"

namespace velum {

constexpr bool has(FileEvent set, FileEvent bits) noexcept {
  return (set & bits) != FileEvent::none;
}

/// What an inotify event of a file means: all but `extended` and `link`, which it does not tell
/// from others.
FileEvent plainlyTranslated(std::uint32_t mask) noexcept;

/// A handler that waits for events of a file. Shared by the registry and by calls on their way.
/// Any thread, unless a member says otherwise.
class FileWatcher : public std::enable_shared_from_this<FileWatcher> {
 public:
  FileWatcher(std::shared_ptr<DispatchQueue> queue, FileEvents::Handler handler);
  FileWatcher(const FileWatcher&) = delete;
  FileWatcher& operator=(const FileWatcher&) = delete;
  virtual ~FileWatcher() = default;

  /// What an inotify event of the file itself means for this watcher. Under the registry's lock.
  virtual FileEvent translated(std::uint32_t mask) = 0;
  /// What it asked for; told when events were lost.
  virtual FileEvent wanted() const noexcept = 0;

  /// Notes events for the next call. True when no call is due yet: then the caller sees to it that
  /// `run` or `schedule` is called, once.
  bool add(FileEvent events) noexcept;
  /// Has the handler called on its queue.
  void schedule();
  /// Calls the handler with the events noted so far, on this thread.
  void run() noexcept;
  bool mayRunAnywhere() const noexcept { return queue_->isConcurrent(); }

  /// No call begins from here on.
  void cancel() noexcept { isCancelled_.store(true, std::memory_order_release); }

  /// Whether it still is where it was found. Looks, for what no event tells. Under the registry's
  /// lock.
  virtual bool isStillThere() { return true; }
  /// Gives up what it watches besides the file. Under the registry's lock.
  virtual void leave() {}
  /// What was watched is no longer where it was found.
  bool isOutdated() const noexcept { return isOutdated_.load(std::memory_order_acquire); }
  void setOutdated() noexcept { isOutdated_.store(true, std::memory_order_release); }

  /// The kernel's watch of the file, -1 when there is none (any more). Under the registry's lock.
  int descriptor = -1;

 private:
  static constexpr unsigned isDue = 1U << 8U;  // a call is scheduled or runs

  std::atomic<unsigned> state_{0};  // the events noted, and `isDue`
  std::atomic<bool> isCancelled_{false};
  std::atomic<bool> isOutdated_{false};
  std::shared_ptr<DispatchQueue> queue_;
  FileEvents::Handler handler_;
};

/// Watches the file that an opened reference stands for.
class OpenedFileWatcher final : public FileWatcher {
 public:
  OpenedFileWatcher(FileEvent wanted, std::shared_ptr<DispatchQueue> queue,
                    FileEvents::Handler handler, UniqueFd file);

  /// To be called once the watch is there. A folder's end is only reported when nothing refers to
  /// it any more, while a file's is seen by its links.
  void releaseFolder();

  FileEvent translated(std::uint32_t mask) override;
  FileEvent wanted() const noexcept override { return wanted_; }

 private:
  FileEvent linkChange();

  FileEvent wanted_;
  UniqueFd file_;  // a bare reference to the file (O_PATH)
  nlink_t links_ = 0;
};

/// What comes of the events of one read: has watchers called, each on its queue.
class FileDeliveries {
 public:
  /// `mayRunOne`: the thread that reads can be kept busy by one that may run anywhere.
  explicit FileDeliveries(bool mayRunOne) : mayRunOne_(mayRunOne) {}

  void add(FileWatcher& watcher, FileEvent events);
  /// Calls the one that is left for this thread, if there is one; without any lock.
  void run() const {
    if (first_) first_->run();
  }

 private:
  const bool mayRunOne_;
  std::shared_ptr<FileWatcher> first_;
};

}  // namespace velum
