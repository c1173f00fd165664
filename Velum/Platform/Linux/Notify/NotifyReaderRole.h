#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "Velum/Base/AtFork.h"

namespace velum {

/// Which thread of the process reads the events of a notify center: at most one at a time. Threads
/// that wait for a response read themselves where they can: to be woken by another thread costs
/// several times what the whole notification does.
class NotifyReaderRole final : public ForkParticipant {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Answer : bool { mine, over };

  NotifyReaderRole();
  NotifyReaderRole(const NotifyReaderRole&) = delete;
  NotifyReaderRole& operator=(const NotifyReaderRole&) = delete;
  ~NotifyReaderRole() override;

  /// Blocks until the calling thread has the role, or until `isDone` or the deadline: then it is
  /// over. A thread that is done never gets the role.
  Answer take(const std::function<bool()>& isDone, Clock::time_point deadline);
  /// False when some thread has it.
  bool tryTake();
  /// Also has the threads that wait look again whether they are done.
  void giveUp();
  /// Whether some thread has it, and may have read events that it has not taken yet.
  bool isTaken();

  void prepareFork() noexcept override { mutex_.lock(); }
  void afterForkInParent() noexcept override { mutex_.unlock(); }
  void afterForkInChild() noexcept override;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool isTaken_ = false;
  int waiting_ = 0;
};

}  // namespace velum
