#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>

#include "Velum/Platform/Dispatch.h"

namespace velum {

/// Notifications between processes. One carries nothing but its name, which may be of any length
/// and any bytes; who observes that name is told that it was posted.
///
/// Posts that follow each other quickly may be told as one, but an observer is always called after
/// the last of them. It hears nothing of what was posted before it was added. Nobody keeps a
/// notification for observers that come later, and nobody tells the poster whether there were any.
///
/// Every operation may be called from any thread and inside callbacks. A forked child observes
/// nothing until it adds observers itself; handles it inherited do nothing.
///
/// On Linux a post is a write to a file of that name in a folder all processes of the scope share;
/// posts that were lost by the kernel are found again by what the files hold.
class NotifyCenter {
 public:
  /// Who hears each other: the processes of this user, or those of all users of the machine, where
  /// anybody can post anything.
  enum class Scope : std::uint8_t { user, system };

  /// Must not throw.
  using Callback = std::function<void()>;

  /// Ends the observation when it is destroyed: no call of the callback begins afterwards. One that
  /// has begun elsewhere runs to its end beside it, so a callback should own or weakly hold what it
  /// touches. May be destroyed inside its own callback.
  class Observer {
   public:
    Observer() = default;
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    virtual ~Observer() = default;
  };

  NotifyCenter() = default;
  NotifyCenter(const NotifyCenter&) = delete;
  NotifyCenter& operator=(const NotifyCenter&) = delete;
  virtual ~NotifyCenter() = default;

  static NotifyCenter& shared(Scope scope);

  /// Throws SystemError when the notification can't be written: there is no folder, the disk is
  /// full, or something that is no notification stands in its place.
  virtual void post(std::string_view name) = 0;

  /// Calls `callback` after every post of `name` from now on, on a serial queue of the center,
  /// where all such callbacks of the scope run one after the other: they should be short. The
  /// observer is active when this returns. Throws SystemError.
  virtual std::unique_ptr<Observer> addObserver(std::string_view name, Callback callback) = 0;

  /// The same on `queue`, where it keeps only that queue waiting. As long as all observers have the
  /// same queue, what was posted is read there, and no other thread has to be woken.
  virtual std::unique_ptr<Observer> addObserver(std::string_view name,
                                                std::shared_ptr<DispatchQueue> queue,
                                                Callback callback) = 0;

  /// The same for somebody about to `wait`: `callback` is called while some thread does, perhaps on
  /// that thread, and maybe never when none does. It should be short.
  virtual std::unique_ptr<Observer> addAwaited(std::string_view name, Callback callback) = 0;

  /// Blocks until `isDone`, which callbacks make true, is asked after one of them and says so;
  /// false when `timeout` passed first. `isDone` is called under a lock: it should look at an
  /// atomic value. Not to be called inside an awaited callback; in others it keeps their queue.
  /// Throws SystemError.
  virtual bool wait(const std::function<bool()>& isDone, std::chrono::nanoseconds timeout) = 0;
};

}  // namespace velum
