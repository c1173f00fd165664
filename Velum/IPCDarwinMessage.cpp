#include "Velum/IPCDarwinMessage.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "Velum/Fatal.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/AtFork.h"
#include "Velum/SystemError.h"
#include "Velum/UnfairLock.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "Velum/IPCDarwinMessage";
constexpr std::string_view separator = ".DARWIN_NOTIFICATION.";

std::atomic<const IPCDarwinMessageConfig*> installedConfig{nullptr};

std::string requestName(const std::string& message) {
  return IPCDarwinMessageConfig::shared().prefix + std::string(separator) + message;
}

std::string responseName(const std::string& message, const std::string& id) {
  return requestName(message) + '.' + id;
}

NotifyCenter& center() {
  return NotifyCenter::shared(IPCDarwinMessageConfig::shared().scope);
}

/// What all requesters of the process sleep on.
class Condition final : public ForkParticipant {
 public:
  static Condition& shared() {
    static Condition& instance = *new Condition;  // NOLINT(*-owning-memory): never destroyed
    return instance;
  }

  void broadcast() {
    {
      const std::lock_guard guard(mutex_);
      ++broadcasts_;
    }
    condition_.notify_all();  // after the lock, which a woken thread takes at once
  }

  std::uint64_t broadcasts() {
    const std::lock_guard guard(mutex_);
    return broadcasts_;
  }

  /// Waits for a broadcast after the first `seen`; false when `timeout` passed before.
  bool wait(std::uint64_t seen, std::chrono::nanoseconds timeout) {
    std::unique_lock guard(mutex_);
    return condition_.wait_for(guard, timeout, [&] { return broadcasts_ != seen; });
  }

  void prepareFork() noexcept override { mutex_.lock(); }
  void afterForkInParent() noexcept override { mutex_.unlock(); }
  void afterForkInChild() noexcept override {
    // It counts waiters that the child does not have. Nothing to destroy: it holds no resource.
    std::construct_at(&condition_);
    mutex_.unlock();
  }

 private:
  Condition() : ForkParticipant(Stage::leaf) { registerForFork(); }

  std::mutex mutex_;
  std::condition_variable condition_;
  std::uint64_t broadcasts_ = 0;
};

/// The observers of requests, one per message.
class Listeners final : public ForkParticipant {
 public:
  static Listeners& shared() {
    static Listeners& instance = *new Listeners;  // NOLINT(*-owning-memory): never destroyed
    return instance;
  }

  void set(const std::string& message, const NotifyCenter::Callback& callback) {
    remove(message);
    Observer observer = center().addObserver(requestName(message), callback);
    const std::lock_guard guard(lock_);
    observers_[message].swap(observer);
  }

  void remove(const std::string& message) {
    Observer old;  // dropped after the lock, with what its handler holds
    const std::lock_guard guard(lock_);
    const auto entry = observers_.find(message);
    if (entry == observers_.end()) return;
    old = std::move(entry->second);
    observers_.erase(entry);
  }

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override { lock_.resetAfterFork(); }

 private:
  using Observer = std::unique_ptr<NotifyCenter::Observer>;

  Listeners() : ForkParticipant(Stage::leaf) { registerForFork(); }

  UnfairLock lock_;
  std::map<std::string, Observer> observers_;
};

}  // namespace

void IPCDarwinMessageConfig::install(IPCDarwinMessageConfig config) {
  static std::atomic<bool> isInstalled{false};
  if (isInstalled.exchange(true)) fatal("IPCDarwinMessageConfig: installed twice");
  installedConfig.store(new IPCDarwinMessageConfig(std::move(config)));  // NOLINT: never destroyed
}

const IPCDarwinMessageConfig& IPCDarwinMessageConfig::shared() noexcept {
  const IPCDarwinMessageConfig* const config = installedConfig.load();
  if (config == nullptr) fatal("IPCDarwinMessage: used without an IPCDarwinMessageConfig");
  return *config;
}

IPCDarwinMessageQueue::IPCDarwinMessageQueue()
    : queue_(DispatchQueue::serial("IPCDarwinMessageQueue.Requests")) {}

IPCDarwinMessageQueue& IPCDarwinMessageQueue::shared() {
  static IPCDarwinMessageQueue& instance =
      *new IPCDarwinMessageQueue;  // NOLINT(*-owning-memory): never destroyed
  return instance;
}

void IPCDarwinMessageQueue::async(Work work) {
  group_.async(*queue_, std::move(work));
}

bool IPCDarwinMessageQueue::wait(std::chrono::nanoseconds timeout) {
  return group_.wait(timeout);
}

bool IPCDarwinMessage::sendRequest(const std::string& message, const std::string& responseId) {
  return sendRequest(message, responseId, responseTimeout);
}

bool IPCDarwinMessage::sendRequest(const std::string& message, const std::string& responseId,
                                   std::chrono::nanoseconds timeout) try {
  constexpr std::string_view function = "sendRequest(_:responseId:)";
  logVerbose({sourceFile, function}, "calling sendRequest");
  Condition& condition = Condition::shared();
  const auto observer = center().addObserver(responseName(message, responseId),
                                             [&condition] { condition.broadcast(); });
  const std::uint64_t seen = condition.broadcasts();
  center().post(requestName(message));
  const bool result = condition.wait(seen, timeout);
  logDebug({sourceFile, function}, "After waiting, result: {}", result);
  return result;
} catch (const SystemError& error) {
  logError({sourceFile, "sendRequest(_:responseId:)"}, "{}", error.what());
  return false;
}

void IPCDarwinMessage::sendResponse(const std::string& message, const std::string& id) try {
  logVerbose({sourceFile, "sendResponse(_:id:)"}, "calling sendResponse");
  center().post(responseName(message, id));
} catch (const SystemError& error) {
  logError({sourceFile, "sendResponse(_:id:)"}, "{}", error.what());
}

bool IPCDarwinMessage::addListener(const std::string& message, Handler handler) try {
  const auto shared = std::make_shared<const Handler>(std::move(handler));
  Listeners::shared().set(
      message, [shared] { IPCDarwinMessageQueue::shared().async([shared] { (*shared)(); }); });
  return true;
} catch (const SystemError& error) {
  logError({sourceFile, "addListener(_:handler:)"}, "{}", error.what());
  return false;
}

void IPCDarwinMessage::removeListener(const std::string& message) {
  Listeners::shared().remove(message);
}

}  // namespace velum
