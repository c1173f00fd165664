#include <algorithm>
#include <atomic>
#include <cstdint>
#include <utility>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/Deadline.h"
#include "Velum/Base/Fatal.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Dispatch/WorkerPool.h"
#include "Velum/Platform/Thread.h"

namespace velum {

/// No lock, which fork would have to know: the count is one word, together with the generation of
/// the process that counted.
struct DispatchGroup::State {
  std::atomic<std::uint64_t> counted{0};
  std::atomic<std::int32_t> timesEmptied{0};  // to sleep on
  std::atomic<int> waiting{0};
  unsigned madeIn = forkGeneration();

  static std::uint64_t pack(unsigned generation, std::uint32_t count) noexcept {
    return std::uint64_t{generation} << 32U | count;
  }
  /// What this process counted.
  static std::uint32_t count(std::uint64_t word) noexcept {
    return word >> 32U == forkGeneration() ? static_cast<std::uint32_t>(word) : 0;
  }

  void enter() noexcept {
    std::uint64_t seen = counted.load();
    while (!counted.compare_exchange_weak(seen, pack(forkGeneration(), count(seen) + 1))) {
    }
  }

  void leave() noexcept {
    std::uint64_t seen = counted.load();
    do {
      // In a forked child, it may be the end of what the parent began.
      if (count(seen) == 0 && madeIn != forkGeneration()) return;
      if (count(seen) == 0) fatal("DispatchGroup: leave without enter");
    } while (!counted.compare_exchange_weak(seen, seen - 1));
    if (count(seen) > 1) return;
    ++timesEmptied;
    if (waiting.load() > 0) wakeAllAt(&timesEmptied);
  }

  bool wait(std::chrono::steady_clock::time_point deadline) {
    ++waiting;
    const bool isEmpty = sleepUntilEmpty(deadline);
    --waiting;
    return isEmpty;
  }

  bool sleepUntilEmpty(std::chrono::steady_clock::time_point deadline) {
    while (true) {
      const std::int32_t before = timesEmptied.load();
      if (count(counted.load()) == 0) return true;
      const auto now = std::chrono::steady_clock::now();
      if (now >= deadline) return false;
      auto until = deadline;
      if (WorkerPool* const pool = WorkerPool::existing(); pool != nullptr && pool->lacksThread()) {
        pool->tryAgain();
        until = std::min(until, now + WorkerPool::retryPause);
      }
      waitOnAddress(timesEmptied, before, until);
    }
  }
};

DispatchGroup::DispatchGroup() : state_(std::make_shared<State>()) {}

void DispatchGroup::enter() {
  state_->enter();
}

void DispatchGroup::leave() {
  const auto state = state_;  // who waits may destroy the group before this returns
  state->leave();
}

void DispatchGroup::async(DispatchQueue& queue, Work work) {
  enter();
  try {
    queue.async([state = state_, work = std::move(work), generation = forkGeneration()] {
      work();
      if (generation == forkGeneration()) state->leave();
    });
  } catch (...) {
    leave();
    throw;
  }
}

bool DispatchGroup::wait(std::chrono::nanoseconds timeout) {
  return state_->wait(deadlineAfter(timeout));
}

}  // namespace velum
