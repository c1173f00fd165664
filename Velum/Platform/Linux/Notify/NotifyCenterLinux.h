#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Notify/NotifyFolder.h"
#include "Velum/Platform/Linux/Notify/NotifyObservers.h"
#include "Velum/Platform/Linux/Notify/NotifyReadQueue.h"
#include "Velum/Platform/Linux/Notify/NotifyReaderRole.h"
#include "Velum/Platform/Linux/Notify/NotifyWatch.h"
#include "Velum/Platform/NotifyCenter.h"

namespace velum {

/// The notify center of one folder: a post is a write to a file of that name in a folder all
/// processes of the scope share, and posts that were lost by the kernel are found again by what the
/// files hold.
///
/// What happens to a post: NotifyWatch says which files changed, NotifyObservers whom that
/// concerns, NotifyNews tells them. NotifyReadQueue and NotifyReaderRole say who reads: the queue
/// of the observers, or a thread that waits, which then hands the queue what is to be called there.
class NotifyCenterLinux final : public NotifyCenter,
                                public ForkParticipant,
                                public std::enable_shared_from_this<NotifyCenterLinux> {
 public:
  /// A center of its own for `folder`, which is made when it is first used. Ends with its last
  /// reference; observers don't keep it.
  static std::shared_ptr<NotifyCenterLinux> make(std::string folder, NotifyFolder::Sharing sharing);

  NotifyCenterLinux(const NotifyCenterLinux&) = delete;
  NotifyCenterLinux& operator=(const NotifyCenterLinux&) = delete;
  ~NotifyCenterLinux() override { unregisterForFork(); }

  void post(std::string_view name) override { folder_.post(name); }
  std::unique_ptr<Observer> addObserver(std::string_view name, Callback callback) override;
  std::unique_ptr<Observer> addObserver(std::string_view name, std::shared_ptr<DispatchQueue> queue,
                                        Callback callback) override;
  std::unique_ptr<Expectation> expect(std::string_view name) override;

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override;

 private:
  using Clock = NotifyReaderRole::Clock;
  using Inotify = std::shared_ptr<NotifyWatch::Inotify>;
  class Handle;
  class ExpectationHandle;

  NotifyCenterLinux(std::string folder, NotifyFolder::Sharing sharing);

  std::unique_ptr<Handle> add(std::shared_ptr<NotifyObserver> observer);
  void remove(const std::shared_ptr<NotifyObserver>& observer);
  void openLk(NotifyObservers::Table& inherited);
  int descriptorLk() const noexcept { return watch_.inotify()->fd.get(); }

  void read(const DispatchQueue& queue);
  std::uint64_t wait(std::uint64_t seen, std::chrono::nanoseconds timeout);
  Clock::time_point readDeadline();
  NotifyNews take(const NotifyWatch::Events& events);
  void watchAgainLk(NotifyNews& news);
  void compareAllLk(NotifyNews& news);

  const NotifyFolder folder_;
  NotifyReaderRole reader_;
  std::atomic<std::uint64_t> expected_{0};  // how often something was posted that a thread expects

  UnfairLock lock_;  // guards what is below
  unsigned generation_ = forkGeneration();
  NotifyWatch watch_{folder_};
  NotifyObservers observers_{folder_};
  NotifyReadQueue readQueue_;
  bool hasComplained_ = false;  // that the folder can't be watched
};

}  // namespace velum
