#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/NotifyCenter.h"

namespace velum {

/// What the processes that talk to each other have in common.
struct IPCDarwinMessageConfig {
  /// Begins the name of every notification; typically an identifier of the product.
  std::string prefix;
  /// Who hears the messages. A privileged daemon and the users' applications need `system`.
  NotifyCenter::Scope scope = NotifyCenter::Scope::user;

  /// To be called once per process, before any messaging. A second call stops the process.
  static void install(IPCDarwinMessageConfig config);
  /// What was installed. Stops the process when nothing was.
  static const IPCDarwinMessageConfig& shared() noexcept;
};

/// Runs the handlers of incoming requests, one after the other, on the queue
/// "IPCDarwinMessageQueue.Requests". Requests are read there as well, so that no handler has to
/// wait for another thread.
class IPCDarwinMessageQueue {
 public:
  IPCDarwinMessageQueue();

  static IPCDarwinMessageQueue& shared();

  const std::shared_ptr<DispatchQueue>& queue() const noexcept { return queue_; }

  /// Hands in `work` as part of the group.
  void async(Work work);
  /// Runs `work`, on the queue itself, as part of the group.
  void run(const Work& work);
  /// Blocks until all work handed in so far has run; false when `timeout` passed first. Not to be
  /// called on the queue itself.
  bool wait(std::chrono::nanoseconds timeout = std::chrono::nanoseconds::max());

 private:
  std::shared_ptr<DispatchQueue> queue_;
  DispatchGroup group_;
};

/// Requests and responses between processes of one product. A message is nothing but its name; a
/// response is told from others by the id that the request's two sides agreed on.
///
/// Any thread; not inside callbacks of the notify center. Errors of the notifications themselves
/// are logged. Using any of it before IPCDarwinMessageConfig::install stops the process.
class IPCDarwinMessage {
 public:
  using Handler = std::function<void()>;

  /// How long a request waits for its response.
  static constexpr std::chrono::seconds responseTimeout{10};

  /// Posts the request `message` and blocks until its response comes: true, or false after ten
  /// seconds. All requests that wait in this process are woken by any response to one of them, and
  /// return true: whoever needs to know that it was the own one looks at what was asked for.
  static bool sendRequest(const std::string& message, const std::string& responseId);

  /// The same with another limit.
  static bool sendRequest(const std::string& message, const std::string& responseId,
                          std::chrono::nanoseconds timeout);

  /// Posts the response `id` to the request `message`. It is lost when nobody waits for it.
  static void sendResponse(const std::string& message, const std::string& id);

  /// Has `handler` called on IPCDarwinMessageQueue when a request `message` arrives; requests that
  /// come quickly one after the other may be told as one. Replaces the listener of that message,
  /// if there is one. False, and a logged error, when the requests can't be observed.
  static bool addListener(const std::string& message, Handler handler);

  /// Ends listening: no call is handed in afterwards, but one that was may still come.
  static void removeListener(const std::string& message);
};

}  // namespace velum
