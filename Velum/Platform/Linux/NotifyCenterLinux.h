#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Velum/Platform/AtFork.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/NotifyFolderLinux.h"
#include "Velum/Platform/NotifyCenter.h"
#include "Velum/Platform/Posix/UniqueFd.h"
#include "Velum/UnfairLock.h"

namespace velum {

/// The notify center of one folder: one inotify descriptor with one watch, however many names are
/// observed. An event only says where to look; what was posted is told by the file's generation,
/// compared for each observer with the one it saw last.
class NotifyCenterLinux final : public NotifyCenter,
                                public ForkParticipant,
                                public std::enable_shared_from_this<NotifyCenterLinux> {
 public:
  /// A center of its own for `folder`, which is made when it is first used. Ends with its last
  /// reference; observers don't keep it.
  static std::shared_ptr<NotifyCenterLinux> make(std::string folder, NotifyFolder::Sharing sharing);

  NotifyCenterLinux(const NotifyCenterLinux&) = delete;
  NotifyCenterLinux& operator=(const NotifyCenterLinux&) = delete;
  ~NotifyCenterLinux() override;

  void post(std::string_view name) override;
  std::unique_ptr<Observer> addObserver(std::string_view name, Callback callback) override;

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override;

 private:
  struct Registration;
  class Handle;
  using Registrations = std::vector<std::shared_ptr<Registration>>;
  using Observers = std::unordered_map<std::string, Registrations>;
  /// What one reading of events asks for, once the lock is released.
  struct Outcome {
    Registrations due;
    std::vector<std::string> complaints;
  };

  NotifyCenterLinux(std::string folder, NotifyFolder::Sharing sharing);

  void openLk();
  void watchLk();
  void rewatchLk(Outcome& outcome);
  void read();
  bool readEventsLk(std::vector<std::string>& changed);
  void compareLk(const std::string& file, bool isChanged, Outcome& outcome);
  void compareAllLk(Outcome& outcome);
  static void finish(const Outcome& outcome);
  void sweepNowAndThen();
  void remove(const std::shared_ptr<Registration>& registration);

  const NotifyFolder folder_;
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("notify center");
  std::atomic<std::chrono::steady_clock::rep> nextSweep_{0};

  UnfairLock lock_;
  unsigned generation_ = forkGeneration();
  UniqueFd inotify_;
  int watch_ = -1;
  bool isRetrying_ = false;
  std::unique_ptr<DispatchSource> source_;
  Observers observers_;                      // by file name
  std::unordered_set<std::string> refused_;  // complained about already
};

}  // namespace velum
