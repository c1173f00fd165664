#pragma once

#include <cstdint>

namespace velum {

/// A library must survive the fork(2) of a process that has several threads: the child owns a copy
/// of every lock, in whatever state some other thread had it, and shares every open file with the
/// parent. An object that owns a lock or a descriptor registers here; one that has nothing but a
/// lock uses Velum/Concurrency/ForkSafeLock.h, which does.
///
/// Before a fork, `prepareFork` of every participant runs, in the order of their stages (locks are
/// taken in the same order as in normal work, which excludes deadlock); afterwards the other two
/// run in reverse order, in the parent and in the child. They must not allocate, log or register.
/// Does not see vfork(2) and posix_spawn(3), which need none of this.
class ForkParticipant {
 public:
  /// Lock order: an earlier stage's lock may be held while a later stage's is taken.
  enum class Stage : std::uint8_t {
    outside,  ///< Held while other libraries and files are used; others' locks may be taken then.
    handler,
    service,
    dispatch,
    leaf,
  };

  ForkParticipant(const ForkParticipant&) = delete;
  ForkParticipant& operator=(const ForkParticipant&) = delete;

  virtual void prepareFork() noexcept = 0;        ///< Takes the object's locks.
  virtual void afterForkInParent() noexcept = 0;  ///< Releases them.
  virtual void afterForkInChild() noexcept = 0;   ///< Resets them, closes what must not be shared.

 protected:
  explicit ForkParticipant(Stage stage) noexcept : stage_(stage) {}
  virtual ~ForkParticipant() = default;

  /// Last thing in the constructor and first in the destructor of the most derived class; costs the
  /// same however many there are. Never called while a lock of any participant is held: the fork
  /// holds the registry while it waits for those locks. Debug builds stop when they know of one.
  void registerForFork();
  void unregisterForFork() noexcept;

  /// Around the time in which a thread holds the object's one lock. Debug builds stop a thread that
  /// holds one of the same stage or a later one already.
  void noteLocking() const noexcept;
  void noteUnlocked() const noexcept;

 private:
  friend class ForkRegistry;
  const Stage stage_;
  ForkParticipant* previous_ = nullptr;  // both guarded by the registry
  ForkParticipant* next_ = nullptr;
};

/// pthread_atfork(3), but for handlers that exit(3) does not take away: a fork in another thread
/// would find them gone half way. So the code must stay in memory. Returns an errno value.
int addForkHandlers(void (*prepare)(), void (*parent)(), void (*child)()) noexcept;

/// How often this process has begun to fork or come back from it.
unsigned forksBegun() noexcept;

/// How often this process's ancestors forked it from themselves: differs between parent and child,
/// constant in one process. What was created under another generation belongs to the parent.
unsigned forkGeneration() noexcept;

}  // namespace velum
