#include "Velum/Platform/Curl/URLLoaderLinux.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <iterator>
#include <mutex>
#include <utility>

#include "Velum/Base/Fatal.h"
#include "Velum/Base/KeepOpenSsl.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Linux/Dispatch/WorkerPool.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

constexpr long idleConnections = 8;

URLError cancelledError() {
  return URLError::url(URLError::cancelled, "cancelled");
}

}  // namespace

URLEngine::URLEngine() : multi_(curl_multi_init(), curl_multi_cleanup) {
  // Without descriptors for it, libcurl would go on and never wake up.
  if (!multi_ || curl_multi_wakeup(multi_.get()) != CURLM_OK) {
    throw SystemError(multi_ ? EMFILE : ENOMEM, "URLLoader, curl_multi_init ()");
  }
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, idleConnections);
}

bool URLEngine::start(std::shared_ptr<URLExchange> exchange) {
  {
    const std::lock_guard guard(lock_);
    if (!hasThread_ && startThread("velum-http", [this] { run(); }) != 0) return false;
    hasThread_ = true;
    started_.push_back(std::move(exchange));
  }
  curl_multi_wakeup(multi_.get());
  return true;
}

void URLEngine::cancel(std::shared_ptr<URLExchange> exchange) {
  {
    const std::lock_guard guard(lock_);
    cancelled_.push_back(std::move(exchange));
  }
  curl_multi_wakeup(multi_.get());
}

int URLEngine::open(int family, int type, int protocol) noexcept {
  const std::lock_guard guard(lock_);
  try {
    sockets_.reserve(sockets_.size() + 1);
  } catch (const std::exception&) {
    errno = ENOMEM;
    return -1;
  }
  const int socket = ::socket(family, type | SOCK_CLOEXEC, protocol);
  if (socket >= 0) sockets_.push_back(socket);
  return socket;
}

void URLEngine::close(int socket) noexcept {
  const std::lock_guard guard(lock_);
  std::erase(sockets_, socket);
  ::close(socket);
}

void URLEngine::abandonInChild() noexcept {
  for (const int socket : sockets_) ::close(socket);
}

void URLEngine::run() {
  // In a child that a body forked while it was read, this is the only thread, and the engine is the
  // parent's.
  while (true) {
    Exchanges ended;
    const int milliseconds = work(ended);
    for (const auto& exchange : ended) exchange->deliver();
    ended.clear();
    const bool wasAwaited = feed();
    if (forkGeneration() != generation_) WorkerPool::shared().serve();
    if (!wasAwaited) curl_multi_poll(multi_.get(), nullptr, 0, milliseconds, nullptr);
  }
}

// Returns how long to wait at most.
int URLEngine::work(Exchanges& ended) {
  const std::lock_guard guard(working_);
  takeOrders();
  int running = 0;
  curl_multi_perform(multi_.get(), &running);
  reapFinished();
  endOverdue();
  ended.swap(ended_);
  return millisecondsToWait();
}

// Reads the bodies, by code of the users' that may log, wait for a disk, or fork. True when a
// transfer was waiting for it.
bool URLEngine::feed() {
  bool wasAwaited = false;
  for (const auto& exchange : running_) {
    if (exchange->isHungry()) exchange->feed();
    if (forkGeneration() != generation_) return false;
    if (!exchange->takePause()) continue;
    wasAwaited = true;
    const std::lock_guard guard(working_);
    curl_easy_pause(exchange->transfer(), CURLPAUSE_CONT);
  }
  return wasAwaited;
}

// What was ordered during the wait, or since: an order that comes later wakes the next wait.
void URLEngine::takeOrders() {
  Exchanges started;
  Exchanges cancelled;
  {
    const std::lock_guard guard(lock_);
    started.swap(started_);
    cancelled.swap(cancelled_);
  }
  for (auto& exchange : started) add(std::move(exchange));
  for (auto& exchange : cancelled) {
    if (remove(*exchange) != nullptr) exchange->end(cancelledError());
    ended_.push_back(std::move(exchange));  // perhaps the last reference
  }
}

void URLEngine::add(std::shared_ptr<URLExchange> exchange) {
  exchange->start();
  const CURLMcode result = curl_multi_add_handle(multi_.get(), exchange->transfer());
  if (result != CURLM_OK) {
    exchange->end(urlError({.code = CURLE_OUT_OF_MEMORY}));
    ended_.push_back(std::move(exchange));
    return;
  }
  running_.push_back(std::move(exchange));
}

// Takes the exchange away from libcurl, to be told; null when it has ended before.
URLExchange* URLEngine::remove(const URLExchange& exchange) {
  const auto place = std::ranges::find(running_, &exchange, &std::shared_ptr<URLExchange>::get);
  if (place == running_.end()) return nullptr;
  std::swap(*place, running_.back());
  ended_.push_back(std::move(running_.back()));
  running_.pop_back();
  URLExchange* const removed = ended_.back().get();
  curl_multi_remove_handle(multi_.get(), removed->transfer());
  return removed;
}

void URLEngine::reapFinished() {
  int left = 0;
  while (const CURLMsg* const message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode result = message->data.result;  // gone with the handle's removal
    if (auto* const exchange = remove(URLExchange::of(message->easy_handle))) {
      exchange->finish(result);
    }
  }
}

void URLEngine::endOverdue() {
  const auto now = URLExchange::Clock::now();
  Exchanges overdue;
  std::ranges::copy_if(running_, std::back_inserter(overdue),
                       [now](const auto& exchange) { return exchange->deadline() <= now; });
  for (const auto& exchange : overdue) {
    remove(*exchange);
    exchange->end(URLError::url(URLError::timedOut, "the request timed out"));
  }
}

int URLEngine::millisecondsToWait() const {
  constexpr std::chrono::milliseconds longest(std::chrono::hours(1));
  if (running_.empty()) return static_cast<int>(longest.count());
  const auto first = *std::ranges::min_element(
      running_, {}, [](const auto& exchange) { return exchange->deadline(); });
  const auto wait =
      std::chrono::ceil<std::chrono::milliseconds>(first->deadline() - URLExchange::Clock::now());
  return static_cast<int>(std::clamp(wait, std::chrono::milliseconds(0), longest).count());
}

URLLoaderLinux::URLLoaderLinux() : ForkParticipant(Stage::service) {
  detail::keepOpenSsl();
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatal("URLLoader: curl_global_init");
  registerForFork();
}

std::shared_ptr<URLTask> URLLoaderLinux::load(std::shared_ptr<const URLRequest> request,
                                              DispatchQueue& queue, URLCompletion completion) {
  auto exchange = std::make_shared<URLExchange>(
      std::move(request), queue, std::move(completion),
      [this](std::shared_ptr<URLExchange> cancelled) { cancel(std::move(cancelled)); });
  try {
    URLEngine& serving = engine();
    if (auto error = exchange->prepare(serving)) {
      exchange->fail(std::move(*error));
    } else if (!serving.start(exchange)) {
      exchange->fail(URLError::posix(EAGAIN, "the system can't start a thread for the exchange"));
    }
  } catch (const SystemError& error) {
    exchange->fail(URLError::posix(error.code(), error.what()));
  }
  return exchange;
}

URLEngine& URLLoaderLinux::engine() {
  URLEngine* current = engine_.load(std::memory_order_acquire);
  if (current != nullptr) return *current;
  auto fresh = std::make_unique<URLEngine>();
  if (engine_.compare_exchange_strong(current, fresh.get(), std::memory_order_acq_rel)) {
    return *fresh.release();
  }
  return *current;  // another thread was first
}

// In a forked child, an exchange of the parent is none of its engine's and nothing happens.
void URLLoaderLinux::cancel(std::shared_ptr<URLExchange> exchange) {
  URLEngine* const serving = engine_.load(std::memory_order_acquire);
  if (serving != nullptr) serving->cancel(std::move(exchange));
}

void URLLoaderLinux::afterForkInChild() noexcept {
  abandoned_ = engine_.exchange(nullptr);
  if (abandoned_ != nullptr) abandoned_->abandonInChild();
}

void URLLoaderLinux::stop() noexcept {
  if (URLEngine* const serving = engine_.load(std::memory_order_acquire)) serving->stop();
}

URLLoader& URLLoader::shared() {
  static NeverDestroyed<URLLoaderLinux> instance;
  // Called where OpenSSL is torn down all the same.
  [[maybe_unused]] static const int isStopped = OPENSSL_atexit([] { (*instance).stop(); });
  return *instance;
}

}  // namespace velum
