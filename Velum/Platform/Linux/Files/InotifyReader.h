#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string_view>

#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Dispatch.h"

namespace velum {

/// Reads events from one inotify descriptor and hands them on, in their order.
///
/// Who only serves serial queues is served by the pool: the descriptor is one of its sources, and
/// costs no thread. But to wake the pool, and another of its threads for the handler, takes several
/// times as long as to wake one thread. So for handlers that may run anywhere, a thread of this
/// object's own reads and runs the first one itself.
///
/// As long as it does, the pool reads: no handler holds up others. The kernel sees to that. Both
/// wait for the descriptor exclusively, so that an event wakes the thread when it waits, else the
/// pool.
///
/// The thread also waits for changes of the table of mounts, which a poll tells once; while it is
/// busy, the pool looks with each event.
class InotifyReader {
 public:
  class Sink {
   public:
    Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    virtual ~Sink() = default;
    /// Takes the bytes of one read(2). Never called twice at once until `reading` is let go of, the
    /// thread's right to read: it may then run one handler that may run anywhere. Without it, all
    /// are to be scheduled.
    virtual void take(std::string_view events, std::unique_lock<UnfairLock> reading) = 0;
    /// Something was mounted or unmounted, of which no watch tells. Never called during `take`.
    virtual void mountsChanged() = 0;
  };

  /// All live for ever. `lock` is the caller's.
  InotifyReader(Sink& sink, UnfairLock& lock, std::shared_ptr<DispatchQueue> queue);
  InotifyReader(const InotifyReader&) = delete;
  InotifyReader& operator=(const InotifyReader&) = delete;
  ~InotifyReader() = default;

  // Called under the caller's lock.

  /// Opens the descriptor unless it is open. Throws SystemError.
  void open();
  int descriptor() const noexcept { return inotify_.get(); }
  /// Starts the thread unless it runs. Where the system gives none, the pool goes on.
  void startThread();

  /// Nobody is woken for events between the two: for who makes many that matter to nobody. They
  /// are read afterwards.
  void pause() noexcept;
  void resume();

  /// For a forked child. The parent reads this descriptor's events; a child that read along would
  /// steal them.
  void resetAfterFork() noexcept;

 private:
  void readInPool();
  void readInThread(unsigned generation);
  bool enterFirst();
  bool enter() noexcept;
  bool haveMountsChanged() const noexcept;

  Sink& sink_;
  UnfairLock& lock_;
  const std::shared_ptr<DispatchQueue> queue_;
  UnfairLock reading_;  // held while events are read and handed on
  UniqueFd inotify_;
  // Where the thread and the pool wait for it (epoll).
  UniqueFd thread_;
  UniqueFd pool_;
  UniqueFd mounts_;                    // none without /proc
  std::atomic<int> mountsNumber_{-1};  // for the pool, which may read already
  std::unique_ptr<DispatchSource> source_;
  bool isOpen_ = false;
  bool hasThread_ = false;
};

}  // namespace velum
