#include "Velum/Platform/AtFork.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <system_error>
#include <vector>

namespace velum {
namespace {

std::atomic<unsigned> generation{0};

}  // namespace

unsigned forkGeneration() noexcept {
  return generation.load(std::memory_order_relaxed);
}

/// The process's participants, kept in the order of their stages.
class ForkRegistry {
 public:
  static ForkRegistry& shared() {
    static ForkRegistry& instance = *new ForkRegistry;  // NOLINT(*-owning-memory): never destroyed
    return instance;
  }

  void add(ForkParticipant& participant) {
    const std::lock_guard guard(mutex_);
    const auto position =
        std::upper_bound(participants_.begin(), participants_.end(), &participant,
                         [](const auto* a, const auto* b) { return a->stage_ < b->stage_; });
    participants_.insert(position, &participant);
  }

  void remove(ForkParticipant& participant) noexcept {
    const std::lock_guard guard(mutex_);
    std::erase(participants_, &participant);
  }

 private:
  ForkRegistry() {
    const int error = ::pthread_atfork([] { shared().prepare(); }, [] { shared().parent(); },
                                       [] { shared().child(); });
    if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_atfork");
  }

  void prepare() noexcept {
    mutex_.lock();
    for (auto* participant : participants_) participant->prepareFork();
  }
  void parent() noexcept {
    std::for_each(participants_.rbegin(), participants_.rend(),
                  [](auto* participant) { participant->afterForkInParent(); });
    mutex_.unlock();
  }
  void child() noexcept {
    generation.fetch_add(1, std::memory_order_relaxed);
    std::for_each(participants_.rbegin(), participants_.rend(),
                  [](auto* participant) { participant->afterForkInChild(); });
    mutex_.unlock();  // the child's only thread is the one that locked it
  }

  std::mutex mutex_;
  std::vector<ForkParticipant*> participants_;
};

namespace {

// Made when the program starts, so that no fork goes uncounted.
[[maybe_unused]] const ForkRegistry& earlyRegistry = ForkRegistry::shared();

}  // namespace

void ForkParticipant::registerForFork() {
  ForkRegistry::shared().add(*this);
}

void ForkParticipant::unregisterForFork() noexcept {
  ForkRegistry::shared().remove(*this);
}

}  // namespace velum
