#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <atomic>
#include <chrono>
#include <functional>

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Platform/Dispatch.h"

namespace velum {

/// The worker threads behind all queues but the main one. The first starts with the first work.
/// When an item keeps the last idle thread busy, another one is added, so that work which blocks
/// starves neither other work nor timers and sources. From `usualThreads` on they are only added
/// while nothing moves: items that all wait for others still get through, and a flood of short
/// ones makes no flood of threads. Those of them that have nothing to do any more end.
///
/// Where the system gives no thread, that is tried again by time: on the main queue, and by whoever
/// waits for a group; also with every piece of work handed in. Without any thread at all, which
/// a program may never notice otherwise, the console says so.
class WorkerPool {
 public:
  static constexpr int usualThreads = 64;
  static constexpr std::chrono::milliseconds retryPause{50};

  /// This process's. A forked child has one of its own.
  static WorkerPool& shared();
  /// The same, but null when there was no work yet.
  static WorkerPool* existing() noexcept;

  asio::io_context& context() noexcept { return context_; }

  /// Makes sure that there is a thread to poll for timers, sources and work.
  void provideThread();
  /// `work` as a thread of the pool runs it.
  Work item(Work work);

  /// Whether there is work that waits for a thread which the system did not give.
  bool lacksThread() const noexcept { return lacksThread_.load(std::memory_order_relaxed); }
  /// Asks the system again.
  void tryAgain();

  /// For a forked child whose only thread was one of the parent's pool.
  [[noreturn]] void serve();

 private:
  void addThreadWhenAllAreBusy();
  int addThreadLk();
  int startWatchLk();
  void watch();
  void serveWhileThereIsWork();
  void tryAgainLater() noexcept;

  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepsRunning_{context_.get_executor()};
  std::atomic<int> threads_{0};
  std::atomic<int> busy_{0};
  std::atomic<unsigned> ended_{0};  // items, ever
  std::atomic<bool> lacksThread_{false};
  std::atomic<bool> isToTryAgain_{false};
  bool isWatched_ = false;
  std::chrono::steady_clock::time_point nextTry_;
  UnfairLock growth_;  // in a forked child nobody uses this pool, so fork needs not know the lock
};

/// Runs one item of work. What escapes from it would unwind a thread that is not its own, so that
/// stops the process. A child that was forked inside the item and returns from it must not go back
/// to where the parent's work comes from: it goes on with `inChild`, which does not return.
template <class InChild>
// NOLINTNEXTLINE(bugprone-exception-escape): on purpose
void performWork(const Work& work, InChild inChild) noexcept {
  const unsigned generation = forkGeneration();
  work();
  if (forkGeneration() != generation) inChild();
}

}  // namespace velum
