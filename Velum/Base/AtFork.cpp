#include "Velum/Base/AtFork.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <system_error>

#include "Velum/Base/Fatal.h"
#include "Velum/Base/NeverDestroyed.h"

namespace velum {
namespace {

std::atomic<unsigned> generation{0};
std::atomic<unsigned> forks{0};

#ifdef NDEBUG
constexpr bool checksOrder = false;
#else
constexpr bool checksOrder = true;
#endif

/// The stages whose locks the thread holds, a bit for each.
thread_local constinit unsigned heldStages = 0;

void requireNoneHeld() noexcept {
  if (checksOrder && heldStages != 0) {
    fatal("ForkParticipant: made or destroyed while a lock that fork takes is held");
  }
}

}  // namespace

unsigned forkGeneration() noexcept {
  return generation.load(std::memory_order_relaxed);
}

unsigned forksBegun() noexcept {
  return forks.load(std::memory_order_relaxed);
}

/// The process's participants, a list for each stage, threaded through the participants.
class ForkRegistry {
 public:
  static ForkRegistry& shared() {
    static NeverDestroyed<ForkRegistry> instance;
    return *instance;
  }

  void add(ForkParticipant& participant) noexcept {
    const std::lock_guard guard(mutex_);
    List& list = listOf(participant);
    participant.previous_ = list.last;
    participant.next_ = nullptr;  // it may have been registered before
    (list.last != nullptr ? list.last->next_ : list.first) = &participant;
    list.last = &participant;
  }

  void remove(ForkParticipant& participant) noexcept {
    const std::lock_guard guard(mutex_);
    List& list = listOf(participant);
    auto* const previous = participant.previous_;
    auto* const next = participant.next_;
    (previous != nullptr ? previous->next_ : list.first) = next;
    (next != nullptr ? next->previous_ : list.last) = previous;
  }

 private:
  friend class NeverDestroyed<ForkRegistry>;

  struct List {
    ForkParticipant* first = nullptr;
    ForkParticipant* last = nullptr;
  };

  ForkRegistry() {
    const int error = addForkHandlers([] { shared().prepare(); }, [] { shared().parent(); },
                                      [] { shared().child(); });
    if (error != 0) throw std::system_error(error, std::generic_category(), "addForkHandlers");
  }

  List& listOf(const ForkParticipant& participant) noexcept {
    return lists_.at(static_cast<std::size_t>(participant.stage_));
  }

  void prepare() noexcept {
    mutex_.lock();
    forks.fetch_add(1, std::memory_order_relaxed);
    for (const List& list : lists_) {
      for (auto* at = list.first; at != nullptr; at = at->next_) at->prepareFork();
    }
  }
  void parent() noexcept {
    forks.fetch_add(1, std::memory_order_relaxed);
    forEachBackwards([](ForkParticipant& participant) { participant.afterForkInParent(); });
    mutex_.unlock();
  }
  void child() noexcept {
    generation.fetch_add(1, std::memory_order_relaxed);
    forEachBackwards([](ForkParticipant& participant) { participant.afterForkInChild(); });
    mutex_.unlock();  // the child's only thread is the one that locked it
  }

  template <class Use>
  void forEachBackwards(Use use) noexcept {
    std::for_each(lists_.rbegin(), lists_.rend(), [&use](const List& list) {
      for (auto* at = list.last; at != nullptr; at = at->previous_) use(*at);
    });
  }

  std::mutex mutex_;
  std::array<List, static_cast<std::size_t>(ForkParticipant::Stage::leaf) + 1> lists_;
};

namespace {

// Made when the program starts, so that no fork goes uncounted.
[[maybe_unused]] const ForkRegistry& earlyRegistry = ForkRegistry::shared();

}  // namespace

void ForkParticipant::registerForFork() {
  requireNoneHeld();
  ForkRegistry::shared().add(*this);
}

void ForkParticipant::unregisterForFork() noexcept {
  requireNoneHeld();
  ForkRegistry::shared().remove(*this);
}

void ForkParticipant::noteLocking() const noexcept {
  if (!checksOrder) return;
  if (heldStages >> static_cast<unsigned>(stage_) != 0) {
    fatal("ForkParticipant: locked while a lock of the same stage or a later one is held");
  }
  heldStages |= 1U << static_cast<unsigned>(stage_);
}

void ForkParticipant::noteUnlocked() const noexcept {
  if (checksOrder) heldStages &= ~(1U << static_cast<unsigned>(stage_));
}

}  // namespace velum
