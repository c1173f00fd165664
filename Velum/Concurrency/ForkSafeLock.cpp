#include "Velum/Concurrency/ForkSafeLock.h"

namespace velum {

ForkSafeLock::ForkSafeLock(Stage stage) : ForkParticipant(stage) {
  registerForFork();
}

void ForkSafeLock::lock() noexcept {
  noteLocking();
  lock_.lock();
}

void ForkSafeLock::unlock() noexcept {
  lock_.unlock();
  noteUnlocked();
}

ForkSafeTurn::ForkSafeTurn() : ForkParticipant(Stage::leaf) {
  registerForFork();
}

void ForkSafeTurn::afterForkInChild() noexcept {
  lock_.resetAfterFork();
  if (isForkers_) lock_.lock();
}

}  // namespace velum
