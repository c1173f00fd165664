#pragma once

#include <cstdint>

namespace velum {

/// A library must survive the fork(2) of a process that has several threads: the child owns a copy
/// of every lock, in whatever state some other thread had it, and shares every open file with the
/// parent. An object that owns a lock or a descriptor registers here.
///
/// Before a fork, `prepareFork` of every participant runs, in the order of their stages (locks are
/// taken in the same order as in normal work, which excludes deadlock); afterwards the other two
/// run in reverse order, in the parent and in the child. They must not allocate, log or register.
/// Does not see vfork(2) and posix_spawn(3), which need none of this.
class ForkParticipant {
 public:
  /// Lock order: an earlier stage's lock may be held while a later stage's is taken.
  enum class Stage : std::uint8_t { handler, service, dispatch, leaf };

  ForkParticipant(const ForkParticipant&) = delete;
  ForkParticipant& operator=(const ForkParticipant&) = delete;

  virtual void prepareFork() noexcept = 0;        ///< Takes the object's locks.
  virtual void afterForkInParent() noexcept = 0;  ///< Releases them.
  virtual void afterForkInChild() noexcept = 0;   ///< Resets them, closes what must not be shared.

 protected:
  explicit ForkParticipant(Stage stage) noexcept : stage_(stage) {}
  virtual ~ForkParticipant() = default;

  /// First and last thing the most derived class does with itself. Never called while a lock of
  /// any participant is held: the fork holds the registry while it waits for those locks.
  void registerForFork();
  void unregisterForFork() noexcept;

 private:
  friend class ForkRegistry;
  Stage stage_;
};

/// How often this process's ancestors forked it from themselves: differs between parent and child,
/// constant in one process. What was created under another generation belongs to the parent.
unsigned forkGeneration() noexcept;

}  // namespace velum
