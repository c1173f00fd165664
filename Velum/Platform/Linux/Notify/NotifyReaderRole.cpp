#include "Velum/Platform/Linux/Notify/NotifyReaderRole.h"

#include <memory>
#include <utility>

namespace velum {

NotifyReaderRole::NotifyReaderRole() : ForkParticipant(Stage::leaf) {
  registerForFork();
}

NotifyReaderRole::~NotifyReaderRole() {
  unregisterForFork();
}

NotifyReaderRole::Answer NotifyReaderRole::take(const std::function<bool()>& isDone,
                                                Clock::time_point deadline) {
  std::unique_lock guard(mutex_);
  while (true) {
    if (isDone() || Clock::now() >= deadline) return Answer::over;
    if (!isTaken_) break;
    ++waiting_;
    changed_.wait_until(guard, deadline);
    --waiting_;
  }
  isTaken_ = true;
  return Answer::mine;
}

bool NotifyReaderRole::tryTake() {
  const std::lock_guard guard(mutex_);
  return !std::exchange(isTaken_, true);
}

void NotifyReaderRole::giveUp() {
  const std::lock_guard guard(mutex_);
  isTaken_ = false;
  if (waiting_ > 0) changed_.notify_all();
}

bool NotifyReaderRole::isTaken() {
  const std::lock_guard guard(mutex_);
  return isTaken_;
}

void NotifyReaderRole::afterForkInChild() noexcept {
  // It counts waiters that the child does not have. Nothing to destroy: it holds no resource.
  std::construct_at(&changed_);
  isTaken_ = false;
  waiting_ = 0;
  mutex_.unlock();
}

}  // namespace velum
