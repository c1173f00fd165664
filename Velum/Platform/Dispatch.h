#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace velum {

using Work = std::function<void()>;

/// A queue of work items. A serial queue runs one item at a time, in the order they were handed
/// in, on some thread of a shared pool; it costs no thread of its own. The main queue runs on the
/// thread that runs Application::run(); concurrent queues, the global one among them, run items
/// side by side.
///
/// Every operation may be called from any thread. An exception that leaves a work item stops the
/// process. Work that blocks gets in nobody's way: threads are added while the system has any. Else
/// the console is told, and it is asked again by the main queue and by who waits or hands in work.
///
/// After fork(2) the child's queues start empty, with threads of their own. A child that was forked
/// inside a work item and returns from it serves its own queues from then on: its main queue when
/// the item ran on the main queue, else the others, with no signal blocked. It never runs the
/// parent's work, and it ends when it calls exit(3), or by a signal.
class DispatchQueue {
 public:
  DispatchQueue() = default;
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;
  virtual ~DispatchQueue() = default;

  static DispatchQueue& main();
  /// True on the main queue's thread: the one that runs it, and before any does, the process's
  /// first.
  static bool isMain() noexcept;
  static DispatchQueue& global();
  /// A new serial queue. Work still waiting when the last reference goes is run all the same.
  static std::shared_ptr<DispatchQueue> serial(std::string label);
  /// The same with a thread of its own from the first work on, so that none has to be woken when it
  /// gets an event while it is idle.
  static std::shared_ptr<DispatchQueue> serialWithThread(std::string label);
  /// A new concurrent queue. It differs from the global one by its label only.
  static std::shared_ptr<DispatchQueue> concurrent(std::string label);

  /// Whether items may run side by side and in any order. A thread that would hand an item to such
  /// a queue, and may be kept busy, can as well run it itself: nobody can tell the difference.
  virtual bool isConcurrent() const noexcept { return false; }

  virtual const std::string& label() const noexcept = 0;

  /// Runs `work` later, never inside this call.
  virtual void async(Work work) = 0;

  /// Runs `work` no earlier than `delay` from now, measured on a clock that never jumps. Can't be
  /// taken back; DispatchSource::timer can. Throws SystemError where the process has no descriptors
  /// left for its first timer, and so does that.
  virtual void asyncAfter(std::chrono::nanoseconds delay, Work work) = 0;
};

/// Counts work in flight on any number of queues. Every `enter` needs its `leave`, and `leave` may
/// come from any thread. Copies count together. In a forked child nothing is in flight: what the
/// parent entered is not waited for there, and a `leave` for it is ignored unless the child
/// itself has something in flight.
class DispatchGroup {
 public:
  DispatchGroup();

  void enter();
  void leave();
  /// Hands `work` to `queue` as part of the group; not part of it when that throws.
  void async(DispatchQueue& queue, Work work);
  /// Blocks until nothing is in flight; false when `timeout` passed first.
  bool wait(std::chrono::nanoseconds timeout = std::chrono::nanoseconds::max());

 private:
  struct State;
  std::shared_ptr<State> state_;
};

/// An event source; it delivers to a queue until it is destroyed, and then lets go of its handler
/// and of the queue. May be destroyed inside its own handler.
///
/// No call of the handler begins after the destructor returned, not even for an event that already
/// waits in the queue. Destroyed on the thread that runs the queue (in a work item of a serial
/// queue, on the main queue's thread), nothing of it runs afterwards. Destroyed elsewhere, a call
/// that already began runs to its end beside it, so the handler should then own or weakly hold what
/// it touches. In a forked child, a source made by the parent delivers nothing.
class DispatchSource {
 public:
  DispatchSource() = default;
  DispatchSource(const DispatchSource&) = delete;
  DispatchSource& operator=(const DispatchSource&) = delete;
  virtual ~DispatchSource() = default;

  /// Calls `handler` on `queue` each time `descriptor` is readable (or at its end), once per
  /// state: the next call comes after the handler returned. The descriptor stays the caller's and
  /// must stay open as long as the source lives. Throws SystemError when it can't be watched.
  static std::unique_ptr<DispatchSource> readable(int descriptor, DispatchQueue& queue,
                                                  Work handler);

  /// Calls `handler` on `queue` once, when the child process `pid` has ended, with its wait(2)
  /// status; the child is reaped by then. `pid` must be a child nobody else waits for: else the
  /// status reads as an exit with 255.
  /// Throws SystemError when there is no such child.
  static std::unique_ptr<DispatchSource> childExit(int pid, DispatchQueue& queue,
                                                   std::function<void(int status)> handler);

  /// Calls `handler` on `queue` no earlier than `delay` from now, measured on a clock that never
  /// jumps: work handed in with asyncAfter that can be taken back. Once, or with an `interval`
  /// above 0 for as long as the source lives, each time `interval` after the handler returned.
  static std::unique_ptr<DispatchSource> timer(
      std::chrono::nanoseconds delay, DispatchQueue& queue, Work handler,
      std::chrono::nanoseconds interval = std::chrono::nanoseconds::zero());
};

}  // namespace velum
