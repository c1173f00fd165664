#include "Velum/IPCDarwinMessage.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/Fatal.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Logger/Logger.h"

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

/// The observers of requests, one per message.
class Listeners {
 public:
  static Listeners& shared() {
    static NeverDestroyed<Listeners> instance;
    return *instance;
  }

  void set(const std::string& message, NotifyCenter::Callback callback) {
    remove(message);
    Observer observer = center().addObserver(
        requestName(message), IPCDarwinMessageQueue::shared().queue(), std::move(callback));
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

 private:
  friend class NeverDestroyed<Listeners>;

  using Observer = std::unique_ptr<NotifyCenter::Observer>;

  Listeners() = default;

  ForkSafeLock lock_{ForkSafeLock::Stage::leaf};
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
    : queue_(DispatchQueue::serialWithThread("IPCDarwinMessageQueue.Requests")) {}

IPCDarwinMessageQueue& IPCDarwinMessageQueue::shared() {
  static NeverDestroyed<IPCDarwinMessageQueue> instance;
  return *instance;
}

void IPCDarwinMessageQueue::async(Work work) {
  group_.async(*queue_, std::move(work));
}

void IPCDarwinMessageQueue::run(const Work& work) {
  const unsigned generation = forkGeneration();
  group_.enter();
  work();
  if (generation == forkGeneration()) group_.leave();  // else it is the parent's
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
  const auto response = center().expect(responseName(message, responseId));
  center().post(requestName(message));
  const bool result = response->wait(timeout);
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
  Listeners::shared().set(
      message, [handler = std::move(handler)] { IPCDarwinMessageQueue::shared().run(handler); });
  return true;
} catch (const SystemError& error) {
  logError({sourceFile, "addListener(_:handler:)"}, "{}", error.what());
  return false;
}

void IPCDarwinMessage::removeListener(const std::string& message) {
  Listeners::shared().remove(message);
}

}  // namespace velum
