#pragma once

#include <curl/curl.h>

#include <atomic>
#include <memory>
#include <vector>

#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Platform/Curl/URLExchange.h"
#include "Velum/Platform/URLLoader.h"

namespace velum {

/// The thread that serves all exchanges of a process, and what it serves them with. libcurl's
/// multi interface wants to know when a socket can be written too, which a DispatchSource can't
/// tell; so there is this one thread, started with the first exchange and asleep in
/// curl_multi_poll while nothing happens. It never ends; `stop` keeps it from ever working again.
class URLEngine final : public SocketOwner {
 public:
  /// Throws SystemError when there are no descriptors or memory left.
  URLEngine();
  URLEngine(const URLEngine&) = delete;
  URLEngine& operator=(const URLEngine&) = delete;
  ~URLEngine() override = default;

  /// False when the system gives no thread.
  bool start(std::shared_ptr<URLExchange> exchange);
  void cancel(std::shared_ptr<URLExchange> exchange);

  /// For the process's end. Waits until libcurl does not work.
  void stop() noexcept { working_.lock(); }

  int open(int family, int type, int protocol) noexcept override;
  void close(int socket) noexcept override;

  /// In a forked child: closes its copies of the sockets, so that the peers see the parent's end.
  void abandonInChild() noexcept;

 private:
  using Exchanges = std::vector<std::shared_ptr<URLExchange>>;

  [[noreturn]] void run();
  int work(Exchanges& ended);
  bool feed();
  void takeOrders();
  void add(std::shared_ptr<URLExchange> exchange);
  URLExchange* remove(const URLExchange& exchange);
  void reapFinished();
  void endOverdue();
  int millisecondsToWait() const;

  const unsigned generation_ = forkGeneration();
  const std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> multi_;
  // Held while libcurl works, not while it waits: what a child finds of it, and of the libraries
  // below it, is whole.
  ForkSafeLock working_{ForkSafeLock::Stage::service};
  Exchanges running_;  // of the thread
  Exchanges ended_;    // of the thread; told and dropped when it does not hold `working_`

  ForkSafeLock lock_{ForkSafeLock::Stage::leaf};  // guards what is below
  bool hasThread_ = false;
  Exchanges started_;
  Exchanges cancelled_;
  std::vector<int> sockets_;
};

/// Never destroyed: its thread uses it until the process ends.
class URLLoaderLinux final : public URLLoader, public ForkParticipant {
 public:
  URLLoaderLinux();
  URLLoaderLinux(const URLLoaderLinux&) = delete;
  URLLoaderLinux& operator=(const URLLoaderLinux&) = delete;
  ~URLLoaderLinux() override = default;

  std::shared_ptr<URLTask> load(std::shared_ptr<const URLRequest> request, DispatchQueue& queue,
                                URLCompletion completion) override;

  void prepareFork() noexcept override {}
  void afterForkInParent() noexcept override {}
  void afterForkInChild() noexcept override;

  /// For the process's end.
  void stop() noexcept;

 private:
  URLEngine& engine();
  void cancel(std::shared_ptr<URLExchange> exchange);

  std::atomic<URLEngine*> engine_{nullptr};  // made by the first exchange, never destroyed
  URLEngine* abandoned_ = nullptr;           // a forking parent's, kept reachable for leak checkers
};

}  // namespace velum
