#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/FileEvents.h"
#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {

constexpr bool has(FileEvent set, FileEvent bits) noexcept {
  return (set & bits) != FileEvent::none;
}

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

/// Watches a path: what stands there, and, by the folder above it, what becomes of the name. While
/// that folder is gone as well, the nearest one that is there is watched for the next name on the
/// way. All under the registry's lock.
class PathWatcher final : public FileWatcher {
 public:
  PathWatcher(std::string path, std::shared_ptr<DispatchQueue> queue, FileEvents::Handler handler);

  FileEvent translated(std::uint32_t mask) override;
  FileEvent wanted() const noexcept override;

  /// The path without slashes at its end.
  std::string_view path() const noexcept { return {path_.data(), size_}; }

  /// The kernel's watch of the folder above, negative when there is none (an errno value tells
  /// why), and the first part of the path up to the name that is expected there: all of it as long
  /// as that folder exists.
  int folderDescriptor = -1;
  std::string_view awaited;

 private:
  std::string path_;
  std::size_t size_;  // of the path without slashes at its end
};

/// The last name of a path without slashes at its end; empty when a folder's events never give it:
/// the root, "." and "..".
std::string_view lastName(std::string_view path) noexcept;
/// The folder that holds the last name: "/a" for "/a/b", "/" for "/a", "." for "a".
std::string_view folderAbove(std::string_view path) noexcept;

}  // namespace velum
