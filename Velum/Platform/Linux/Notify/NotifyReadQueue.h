#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "Velum/Platform/Dispatch.h"

namespace velum {

/// The queue that reads a center's events, so that callbacks need no other thread: that of the
/// observers while all have the same, else the center's own. Nobody reads there while a thread that
/// waits does, nor without observers that have a queue. Under its owner's lock.
class NotifyReadQueue {
 public:
  using Clock = std::chrono::steady_clock;
  using Queue = std::shared_ptr<DispatchQueue>;
  /// Called on that queue, without the lock, when there are events or it is time for a retry.
  using Read = std::function<void(const DispatchQueue&)>;

  /// Before all else.
  void setRead(Read read) { read_ = std::move(read); }

  /// Of observers that gave none. Any thread.
  const Queue& own() const noexcept { return own_; }

  /// An observer with that queue comes; `descriptor` is readable when there are events. Throws
  /// SystemError; it has not come then.
  void enter(const Queue& queue, int descriptor);
  /// One goes. Returns what is to be dropped without the lock.
  Queue leave(const Queue& queue, int descriptor);

  /// Leaves the reading to a thread that waits.
  void pause() noexcept { source_.reset(); }
  /// After it. Where there are no descriptors for that, some time later.
  void resume(int descriptor);

  /// Reads again after `delay`, whether or not there are events. Threads that wait see to it
  /// themselves.
  void retryAfter(Clock::duration delay);
  /// When that is due, or was.
  Clock::time_point nextRetry() const noexcept { return nextRetry_; }
  /// Between tries of what fails.
  static constexpr std::chrono::seconds retryPause{1};

  /// For a forked child: the sources are the parent's.
  void resetAfterFork() noexcept;
  /// Forgets all observers.
  void clear() noexcept;

 private:
  struct Use {
    Queue queue;
    int observers = 0;
  };

  void readOn(const Queue& queue, int descriptor);

  const Queue own_ = DispatchQueue::serialWithThread("velum-notify");
  Read read_;
  std::vector<Use> uses_;
  Queue queue_;                             // that reads
  std::unique_ptr<DispatchSource> source_;  // none while it is paused
  std::unique_ptr<DispatchSource> timer_;   // for the next retry
  Clock::time_point nextRetry_;
};

}  // namespace velum
