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

  /// What a thread waits for, until it is destroyed.
  class Expectation {
   public:
    Expectation() = default;
    Expectation(const Expectation&) = delete;
    Expectation& operator=(const Expectation&) = delete;
    virtual ~Expectation() = default;

    /// Blocks until something was posted since this was made, or waited for last, that any thread
    /// of this process expects of the center; false when `timeout` passed first. One thread at a
    /// time. In a callback, it keeps that one's queue. Throws SystemError.
    virtual bool wait(std::chrono::nanoseconds timeout) = 0;
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
  /// The same on `queue`, which is serial.
  virtual std::unique_ptr<Observer> addObserver(std::string_view name,
                                                std::shared_ptr<DispatchQueue> queue,
                                                Callback callback) = 0;

  /// Expects posts of `name` from now on. Throws SystemError.
  virtual std::unique_ptr<Expectation> expect(std::string_view name) = 0;
};

}  // namespace velum
