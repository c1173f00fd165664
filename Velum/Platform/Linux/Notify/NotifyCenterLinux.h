#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Notify/NotifyFolder.h"
#include "Velum/Platform/Linux/Notify/NotifyReaderRole.h"
#include "Velum/Platform/Linux/Notify/NotifyWatch.h"
#include "Velum/Platform/NotifyCenter.h"

namespace velum {

/// The notify center of one folder. An event only says where to look; what was posted is told by
/// the file's generation, compared for each observer with the one it saw last of that poster.
///
/// Events are read where the callbacks run: on the observers' queue while all have the same, else
/// on the center's own. A thread that waits for a response reads itself; then the queue leaves the
/// reading to it, and is handed what is to be called there.
class NotifyCenterLinux final : public NotifyCenter,
                                public ForkParticipant,
                                public std::enable_shared_from_this<NotifyCenterLinux> {
 public:
  /// A center of its own for `folder`, which is made when it is first used. Ends with its last
  /// reference; observers don't keep it.
  static std::shared_ptr<NotifyCenterLinux> make(std::string folder, NotifyFolder::Sharing sharing);

  NotifyCenterLinux(const NotifyCenterLinux&) = delete;
  NotifyCenterLinux& operator=(const NotifyCenterLinux&) = delete;
  ~NotifyCenterLinux() override { unregisterForFork(); }

  void post(std::string_view name) override;
  std::unique_ptr<Observer> addObserver(std::string_view name, Callback callback) override;
  std::unique_ptr<Observer> addObserver(std::string_view name, std::shared_ptr<DispatchQueue> queue,
                                        Callback callback) override;
  std::unique_ptr<Observer> addAwaited(std::string_view name, Callback callback) override;
  bool wait(const std::function<bool()>& isDone, std::chrono::nanoseconds timeout) override;

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override;

 private:
  using Clock = NotifyReaderRole::Clock;
  using Queue = std::shared_ptr<DispatchQueue>;
  /// The last generation of each user who posted.
  using Seen = std::vector<std::pair<uid_t, NotifyGeneration>>;
  struct Registration;
  class Handle;
  using Registrations = std::vector<std::shared_ptr<Registration>>;
  using Observers = std::unordered_map<std::string, Registrations>;
  struct QueueUse {
    Queue queue;
    int observers = 0;
  };
  /// What one reading of events asks for, once the lock is released.
  struct Outcome {
    Registrations due;
    std::vector<std::string> complaints;
  };

  NotifyCenterLinux(std::string folder, NotifyFolder::Sharing sharing);

  std::unique_ptr<Observer> add(std::string_view name, Queue queue, Callback callback);
  void remove(const std::shared_ptr<Registration>& registration);
  void openLk(Observers& inherited);
  Seen presentLk(const std::string& name, std::size_t unread);

  void enterLk(const Queue& queue);
  Queue leaveLk(const Queue& queue);
  void readOnLk(const Queue& queue);
  void resumeLk();
  void tryAgainLk(Clock::duration delay);
  Clock::time_point readDeadline();
  void turn(const DispatchQueue& queue);

  Outcome take(const NotifyWatch::Events& events);
  void rewatchLk(Outcome& outcome);
  void compareAllLk(Outcome& outcome);
  void compareLk(const std::string& name, const std::string& file, std::uint64_t place,
                 Outcome& outcome);
  static bool isNews(const NotifyFolder::Look& look, std::uint64_t place, Registration& observer);
  void complainLk(const std::string& name, std::string text, Outcome& outcome);
  static void callAwaited(const Outcome& outcome);
  static void callOthers(const Outcome& outcome, const DispatchQueue* own);
  void sweepNowAndThen();

  const NotifyFolder folder_;
  const Queue own_;  // of observers that gave none
  std::atomic<std::chrono::steady_clock::rep> nextSweep_{0};
  NotifyReaderRole reader_;

  UnfairLock lock_;  // guards what is below
  unsigned generation_ = forkGeneration();
  NotifyWatch watch_{folder_};
  bool isStale_ = false;                    // not all observed files were compared
  bool isRetrying_ = false;                 // to watch the folder
  Clock::time_point nextTry_;               // of either
  Queue queue_;                             // where events are read
  std::unique_ptr<DispatchSource> source_;  // none while a waiting thread reads
  std::unique_ptr<DispatchSource> timer_;   // for the next try
  /// What the name that was observed last held then: whoever asks often observes it often.
  struct {
    std::string name;
    Seen seen;
    int watch = -1;  // of its group; -1 when there may have been posts since
  } last_;
  Observers observers_;  // by the name's file name
  std::vector<QueueUse> queues_;
  std::unordered_set<std::string> refused_;  // complained about already
};

}  // namespace velum
