#pragma once

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"

namespace velum {

/// The lock of a stateful object: an UnfairLock that fork(2) knows by itself. A fork waits until it
/// is free, so that the child finds it free and what it guards whole.
///
/// For short sections only, since every fork of the process waits for them: no files of others, no
/// user's code, no log call, and no making or destroying of a ForkParticipant (of another
/// ForkSafeLock, that is) while it is held. A thread that holds one takes only those of later
/// stages. Debug builds stop a thread that does otherwise.
///
/// Meets the standard's BasicLockable. An uncontended lock costs what an UnfairLock does; making
/// one costs a short turn at a list of the process, however many there are, and a fork some 50 ns
/// for each, so that an object for every request may have one. Can be neither copied nor moved.
class ForkSafeLock final : public ForkParticipant {
 public:
  using ForkParticipant::Stage;

  explicit ForkSafeLock(Stage stage);
  ForkSafeLock(const ForkSafeLock&) = delete;
  ForkSafeLock& operator=(const ForkSafeLock&) = delete;
  ~ForkSafeLock() override { unregisterForFork(); }

  void lock() noexcept;
  void unlock() noexcept;
  /// Stops a debug build unless the calling thread holds the lock. For routines named ...Lk.
  void assertHeld() const noexcept { lock_.assertHeld(); }

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override { lock_.resetAfterFork(); }

 private:
  UnfairLock lock_;
};

/// The right to do what takes long (files, services, user's code), for one thread at a time. No
/// fork waits for it, and no order binds it but the owner's own. The child finds it free, unless
/// the thread that forked has it, which then has it in the child as well. What another thread was
/// in the middle of is unfinished there: compare forkGeneration() where that matters.
class ForkSafeTurn final : public ForkParticipant {
 public:
  ForkSafeTurn();
  ForkSafeTurn(const ForkSafeTurn&) = delete;
  ForkSafeTurn& operator=(const ForkSafeTurn&) = delete;
  ~ForkSafeTurn() override { unregisterForFork(); }

  void lock() noexcept { lock_.lock(); }
  void unlock() noexcept { lock_.unlock(); }
  /// As for ForkSafeLock.
  void assertHeld() const noexcept { lock_.assertHeld(); }
  /// Whether the calling thread has it.
  bool isHeld() const noexcept { return lock_.isHeld(); }

  void prepareFork() noexcept override { isForkers_ = lock_.isHeld(); }
  void afterForkInParent() noexcept override {}
  void afterForkInChild() noexcept override;

 private:
  UnfairLock lock_;
  bool isForkers_ = false;
};

}  // namespace velum
