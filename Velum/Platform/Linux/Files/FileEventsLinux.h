#pragma once

#include <sys/inotify.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Platform/FileEvents.h"
#include "Velum/Platform/Linux/Files/FileWatcher.h"
#include "Velum/Platform/Linux/Files/InotifyReader.h"
#include "Velum/Platform/Linux/Files/InotifyWatches.h"
#include "Velum/Platform/Linux/Files/PathWay.h"

namespace velum {

/// All watches of the process on one inotify descriptor. An event goes one way: InotifyReader reads
/// it, InotifyWatches knows whom it concerns, a FileWatcher what it means (a PathWatcher goes its
/// PathWay again, where that may lead elsewhere) and FileDeliveries has the handler called.
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
  /// Whether what is watched is no longer where it was found. Looks, for what no event tells.
  bool isOutdated(FileWatcher& watcher);

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override {
    reader_.resetAfterFork();
    lock_.resetAfterFork();
  }

 private:
  void openLk();
  void take(std::string_view events, std::unique_lock<UnfairLock> reading) override;
  void mountsChanged() override;
  void takeAllLk(std::string_view events, FileDeliveries& deliveries);
  void takeLk(const inotify_event& event, std::string_view name, FileDeliveries& deliveries);
  void tellAllLk(FileDeliveries& deliveries);

  UnfairLock lock_;
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("FileEvents");
  InotifyReader reader_{*this, lock_, queue_};
  InotifyWatches watches_{lock_, reader_, queue_};
  PathWays ways_{watches_};
  std::string postponed_;  // events that can wait for the next ones; the reader's own
};

}  // namespace velum
