#pragma once

#include <sys/inotify.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/FileEvents.h"

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

class PathWatcher;

/// How the kernel gets to the folder that holds the last name of a path: through folders and links,
/// all of which are watched for their own move and end, and for who may go through. As long as it
/// does not get there, each folder on the way is watched for the name that is looked up in it. One
/// for all watchers that began together in one folder. Under the registry's lock.
struct PathWay : std::enable_shared_from_this<PathWay> {
  enum class Kind : bool {
    folder,  ///< All of the path are folders, or links to such.
    path,    ///< But for the last name, which is followed while it is a link.
  };

  std::string folder;  ///< Where it ends, free of links.
  std::string name;    ///< Kind::path: of what stands there.
  bool isWhole = false;
  int descriptor = -1;     ///< The watch of that folder for the names in it.
  bool isRefused = false;  ///< The user may not have as many watches.
  std::vector<int> folders;
  std::vector<int> links;
  std::vector<std::pair<std::string, std::string>>
      steps;                                         ///< Folders, and what is looked up there.
  std::vector<std::pair<int, std::string>> awaited;  ///< Watches, and the name of interest.
  std::unordered_set<PathWatcher*> watchers;

  /// Whether an event of the watch of one of its folders or links, other than that one's own end
  /// and move, may have it lead elsewhere.
  bool isConcerned(const inotify_event& event, std::string_view entry) const;
};

/// Watches a path: what stands there, and what becomes of the way to it. All under the registry's
/// lock.
class PathWatcher final : public FileWatcher {
 public:
  PathWatcher(std::string path, std::shared_ptr<DispatchQueue> queue, FileEvents::Handler handler);

  FileEvent translated(std::uint32_t mask) override;
  FileEvent wanted() const noexcept override;

  /// The path without slashes at its end, but for the root's.
  std::string_view path() const noexcept { return {path_.data(), size_}; }

  std::shared_ptr<PathWay> way;
  /// What it waits for in the folder where the way ends; empty where nothing can come there.
  std::string_view name;
  /// Device and inode of what stood there when it was last looked for.
  std::optional<std::pair<dev_t, ino_t>> seen;

 private:
  std::string path_;
  std::size_t size_;  // of the path without slashes at its end
};

/// The last name of a path without slashes at its end; empty when a folder's events never give it:
/// the root, "." and "..".
std::string_view lastName(std::string_view path) noexcept;
/// The folder that holds the last name: "/a" for "/a/b", "/" for "/a", "." for "a".
std::string_view folderAbove(std::string_view path) noexcept;
/// The path of a name in a folder.
std::string pathIn(const std::string& folder, std::string_view name);
/// Takes the first name from a path, and the slashes behind it; "." is passed over.
std::string takeName(std::string& path);
/// Where a symbolic link leads; nothing for anything else.
std::optional<std::string> linkTarget(const std::string& path);

}  // namespace velum
