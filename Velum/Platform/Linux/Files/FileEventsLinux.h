#pragma once

#include <sys/inotify.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Platform/FileEvents.h"
#include "Velum/Platform/Linux/Files/FileWatcher.h"
#include "Velum/Platform/Linux/Files/InotifyReader.h"

namespace velum {

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
  /// Whether the path leads elsewhere by now. Looks, for what no event tells.
  bool isOutdated(PathWatcher& watcher);

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override {
    reader_.resetAfterFork();
    lock_.resetAfterFork();
  }

 private:
  // By the name each waits for. The names are parts of the watchers' paths and ways.
  using Names = std::unordered_multimap<std::string_view, std::shared_ptr<PathWatcher>>;
  using Ways = std::unordered_set<std::shared_ptr<PathWay>>;

  /// Who wants to hear of one file or folder.
  struct Watched {
    std::vector<std::shared_ptr<FileWatcher>> watchers;
    std::unique_ptr<Names> names;  // few folders are watched for those
    std::unique_ptr<Ways> ways;    // that lead through it

    bool isUnused() const {
      return watchers.empty() && (!names || names->empty()) && (!ways || ways->empty());
    }
  };

  /// What comes of the events of one read, besides the handlers that were scheduled.
  struct Outcome {
    explicit Outcome(InotifyReader::Turn turn_) : turn(turn_) {}
    InotifyReader::Turn turn;
    std::shared_ptr<FileWatcher> first;  // to be run by the thread that reads
  };

  void openLk();
  int addWatchLk(const char* path, std::uint32_t mask);
  int addOwnWatchLk(const char* path, std::uint32_t mask);
  void releaseLk(int descriptor, const std::shared_ptr<FileWatcher>& watcher);
  void retireIfUnusedLk(int descriptor);
  void removeRetiredLk();
  void removeRetired();

  // Of paths: FilePathsLinux.cpp.
  /// Where the last name may be a link's, which is not followed. False where there is none.
  bool takeFolderWayLk(const std::shared_ptr<PathWatcher>& watcher);
  void takeWayLk(const std::shared_ptr<PathWatcher>& watcher);
  void enterLk(const std::shared_ptr<PathWatcher>& watcher, const std::shared_ptr<PathWay>& way);
  int watchOwnLk(const std::shared_ptr<PathWatcher>& watcher);
  void leaveWayLk(const std::shared_ptr<PathWatcher>& watcher);
  std::shared_ptr<PathWay> folderWayLk(std::string_view folder);
  std::shared_ptr<PathWay> wayLk(std::string_view path, PathWay::Kind kind);
  void goLk(PathWay& way, std::string_view path, PathWay::Kind kind);
  int passLk(PathWay& way, std::vector<int>& watches, const std::string& path, std::uint32_t mask);
  std::optional<std::string> passLinkLk(PathWay& way, const std::string& path);
  void awaitLk(PathWay& way);
  void dropLk(PathWay& way);
  bool isStillThereLk(const PathWatcher& watcher);
  void wayChangedLk(PathWay& way, Outcome& outcome);
  void nameChangedLk(const std::shared_ptr<PathWatcher>& watcher, std::uint32_t mask,
                     Outcome& outcome);
  void lookAgainLk(const std::shared_ptr<PathWatcher>& watcher, Outcome& outcome);
  void lookAgainAtAllLk(Outcome& outcome);

  std::shared_ptr<FileWatcher> take(std::string_view events, InotifyReader::Turn turn) override;
  void mountsChanged() override;
  void resumeReading() override;
  void takeAllLk(std::string_view events, Outcome& outcome);
  void takeLk(const inotify_event& event, std::string_view name, Outcome& outcome);
  void tellAllLk(Outcome& outcome);
  static void deliver(FileWatcher& watcher, FileEvent events, Outcome& outcome);

  UnfairLock lock_;
  unsigned generation_ = forkGeneration();
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("FileEvents");
  InotifyReader reader_{*this, queue_};
  std::unordered_map<int, Watched> watched_;
  Ways ways_;  // all of them
  // Nobody wants these any more. The kernel tells of each removal, which wakes the reader: they are
  // removed together, at the latest after a moment.
  std::vector<int> retired_;
  bool isRemovalDue_ = false;
  struct {
    std::string folder;
    std::weak_ptr<PathWay> way;
    std::chrono::steady_clock::time_point moment;
  } latest_;
  std::string postponed_;  // events that can wait for the next ones; the reader's own
};

}  // namespace velum
