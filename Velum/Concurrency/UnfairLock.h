#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace velum {

/// The non-recursive lock of every stateful service: one 4-byte word that holds the owner's
/// thread id. Uncontended lock and unlock make no system call; a waiter spins briefly, then
/// sleeps. Not fair: a thread that just unlocked may lock again before a waiter wakes.
///
/// The word lives on the heap so that its address never moves. Meets the standard's BasicLockable
/// and Lockable, so use it through std::lock_guard. Whoever got the lock may destroy it, even while
/// the unlock that gave it to him has not yet returned.
///
/// A thread that locks twice deadlocks; debug builds stop the process instead and say so. Only the
/// thread that locked may unlock (checked in debug builds).
class UnfairLock {
 public:
  UnfairLock();

  void lock() noexcept;
  bool try_lock() noexcept;  // NOLINT(readability-identifier-naming): the standard's name
  void unlock() noexcept;

  /// Stops a debug build unless the calling thread holds the lock. For routines named ...Lk.
  void assertHeld() const noexcept;
  /// Whether the calling thread holds the lock.
  bool isHeld() const noexcept;

  /// For a forked child only, whose single thread inherited the lock in an unknown state.
  void resetAfterFork() noexcept;

 private:
  using Word = std::atomic<std::int32_t>;

  void lockContended(std::int32_t self) noexcept;

  std::unique_ptr<Word> word_;
};

}  // namespace velum
