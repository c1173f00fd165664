#include "Velum/Concurrency/UnfairLock.h"

#include "Velum/Base/Fatal.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

#ifdef NDEBUG
constexpr bool checksOwner = false;
#else
constexpr bool checksOwner = true;
#endif

constexpr std::int32_t unlocked = 0;
// The word is the owner's thread id; negative while somebody may be asleep waiting.
constexpr std::int32_t withWaiters(std::int32_t owner) noexcept {
  return -owner;
}
constexpr std::int32_t owner(std::int32_t word) noexcept {
  return word < 0 ? -word : word;
}

std::int32_t selfId() noexcept {
  return static_cast<std::int32_t>(currentThreadId());
}

}  // namespace

UnfairLock::UnfairLock() : word_(std::make_unique<Word>(unlocked)) {}

void UnfairLock::lock() noexcept {
  const std::int32_t self = selfId();
  std::int32_t expected = unlocked;
  if (word_->compare_exchange_strong(expected, self, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
    return;
  }
  lockContended(self);
}

void UnfairLock::lockContended(std::int32_t self) noexcept {
  if (checksOwner && owner(word_->load(std::memory_order_relaxed)) == self) {
    fatal("UnfairLock: a thread locked it twice");
  }
  // Whoever waited takes the lock as contended: there may be more waiters, and one wake-up too
  // many is harmless where one too few is a hang.
  while (true) {
    std::int32_t seen = word_->load(std::memory_order_relaxed);
    if (seen == unlocked) {
      if (word_->compare_exchange_weak(seen, withWaiters(self), std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return;
      }
      continue;
    }
    if (seen > 0 &&
        !word_->compare_exchange_weak(seen, withWaiters(seen), std::memory_order_relaxed)) {
      continue;
    }
    waitOnAddress(*word_, withWaiters(owner(seen)));
  }
}

bool UnfairLock::try_lock() noexcept {
  std::int32_t expected = unlocked;
  return word_->compare_exchange_strong(expected, selfId(), std::memory_order_acquire,
                                        std::memory_order_relaxed);
}

void UnfairLock::unlock() noexcept {
  if (checksOwner) assertHeld();
  // With the exchange the lock may be somebody else's, who may destroy it.
  Word* const word = word_.get();
  if (word->exchange(unlocked, std::memory_order_release) < 0) wakeOneAt(word);
}

void UnfairLock::assertHeld() const noexcept {
  if (checksOwner && !isHeld()) fatal("UnfairLock: not held by this thread");
}

bool UnfairLock::isHeld() const noexcept {
  return owner(word_->load(std::memory_order_relaxed)) == selfId();
}

void UnfairLock::resetAfterFork() noexcept {
  word_->store(unlocked, std::memory_order_relaxed);
}

}  // namespace velum
