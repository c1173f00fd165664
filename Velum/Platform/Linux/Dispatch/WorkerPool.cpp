#include "Velum/Platform/Linux/Dispatch/WorkerPool.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Platform/ConsoleLog.h"
#include "Velum/Platform/Linux/Dispatch/PerProcess.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

using Clock = std::chrono::steady_clock;

/// How long one of the threads above the usual number waits for more work.
constexpr std::chrono::seconds patience(5);

PerProcess<WorkerPool>& pools() {
  static NeverDestroyed<PerProcess<WorkerPool>> instance;
  return *instance;
}

void reportLack(int error) noexcept try {
  consoleLog("Queued work waits, because no thread could be started (" +
             std::generic_category().message(error) + "). Trying again until one can.");
} catch (const std::bad_alloc&) {
  consoleLog("Queued work waits, because no thread could be started.");
}

}  // namespace

WorkerPool& WorkerPool::shared() {
  return pools().get();
}

WorkerPool* WorkerPool::existing() noexcept {
  return pools().existing();
}

void WorkerPool::provideThread() {
  if (threads_.load(std::memory_order_relaxed) == 0 || lacksThread()) addThreadWhenAllAreBusy();
}

Work WorkerPool::item(Work work) {
  return [this, work = std::move(work)] {
    const int busy = busy_.fetch_add(1) + 1;
    if (busy >= threads_.load(std::memory_order_relaxed)) addThreadWhenAllAreBusy();
    performWork(work, [] { shared().serve(); });
    busy_.fetch_sub(1, std::memory_order_relaxed);
    ended_.fetch_add(1, std::memory_order_relaxed);
  };
}

void WorkerPool::tryAgain() {
  if (lacksThread()) addThreadWhenAllAreBusy();
}

// Both numbers are read under the lock: a new thread may be busy before it is counted, and then it
// is the one that comes here next.
void WorkerPool::addThreadWhenAllAreBusy() {
  int error = 0;
  bool isFirst = false;
  {
    const std::lock_guard guard(growth_);
    const int threads = threads_.load(std::memory_order_relaxed);
    const bool isEnough = threads > busy_.load();
    if (isEnough) lacksThread_ = false;
    if (isEnough || Clock::now() < nextTry_) return;
    error = threads < usualThreads ? addThreadLk() : startWatchLk();
    if (error != 0) nextTry_ = deadlineAfter(retryPause);
    if (lacksThread_.exchange(error != 0) || error == 0) return;
    isFirst = threads == 0;
  }
  if (isFirst) reportLack(error);
  tryAgainLater();
}

int WorkerPool::addThreadLk() {
  growth_.assertHeld();
  const int threads = threads_.load(std::memory_order_relaxed);
  const int error = startThread("velum-worker", [this, isUsual = threads < usualThreads] {
    if (isUsual) context_.run();  // for ever
    serveWhileThereIsWork();
  });
  if (error == 0) threads_.store(threads + 1, std::memory_order_relaxed);
  return error;
}

int WorkerPool::startWatchLk() {
  growth_.assertHeld();
  if (isWatched_) return 0;
  const int error = startThread("velum-watch", [this] { watch(); });
  isWatched_ = error == 0;
  return error;
}

/// Adds threads while all are busy and none gets on.
void WorkerPool::watch() {
  while (true) {
    const unsigned ended = ended_.load(std::memory_order_relaxed);
    std::this_thread::sleep_for(retryPause);
    const std::lock_guard guard(growth_);
    const int threads = threads_.load(std::memory_order_relaxed);
    if (threads > busy_.load()) {
      isWatched_ = false;
      return;
    }
    if (ended_.load(std::memory_order_relaxed) != ended) continue;
    for (int i = 0; i < threads / 16 && addThreadLk() == 0;) ++i;
  }
}

void WorkerPool::serveWhileThereIsWork() {
  while (true) {
    while (context_.run_one_for(patience) != 0) {
    }
    const std::lock_guard guard(growth_);
    const int others = threads_.load(std::memory_order_relaxed) - 1;
    if (others <= busy_.load()) continue;  // somebody has to wait for timers and sources
    threads_.store(others, std::memory_order_relaxed);
    return;
  }
}

/// Only where the program has a main loop this comes to run.
void WorkerPool::tryAgainLater() noexcept try {
  if (isToTryAgain_.exchange(true)) return;
  DispatchQueue::main().asyncAfter(retryPause, [this] {
    isToTryAgain_ = false;
    tryAgain();
    if (lacksThread()) tryAgainLater();
  });
} catch (const std::exception&) {
  isToTryAgain_ = false;  // no memory or no descriptor: left to the others who try
}

void WorkerPool::serve() {
  {
    const std::lock_guard guard(growth_);
    threads_.store(threads_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  // The program's signals belong to this thread now: there is no other.
  sigset_t none{};
  ::sigemptyset(&none);
  ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
  while (true) context_.run();
}

}  // namespace velum
