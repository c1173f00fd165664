#pragma once

#include <curl/curl.h>

#include <memory>
#include <vector>

#include "Velum/Platform/AtFork.h"
#include "Velum/Platform/Linux/URLExchangeLinux.h"
#include "Velum/Platform/URLLoader.h"
#include "Velum/UnfairLock.h"

namespace velum {

/// The thread that serves all exchanges of a process, and what it serves them with. libcurl's
/// multi interface wants to know when a socket can be written too, which a DispatchSource can't
/// tell; so there is this one thread, started with the first exchange and asleep in
/// curl_multi_poll while nothing happens. It never ends.
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

  int open(int family, int type, int protocol) noexcept override;
  void close(int socket) noexcept override;

  /// Around fork(2): no transfer is under way while the process is copied, and the child closes
  /// its copies of the sockets, so that the peers see the parent's end.
  void lockForFork() noexcept;
  void unlockAfterFork() noexcept;
  void abandonInChild() noexcept;

 private:
  using Exchanges = std::vector<std::shared_ptr<URLExchange>>;

  [[noreturn]] void run();
  void takeOrders();
  void add(std::shared_ptr<URLExchange> exchange);
  std::shared_ptr<URLExchange> remove(const URLExchange& exchange);
  void reapFinished();
  void endOverdue();
  int millisecondsToWait() const;

  const std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> multi_;
  UnfairLock working_;  // held while libcurl works, not while it waits
  Exchanges running_;   // of the thread

  UnfairLock lock_;  // guards what is below; taken after `working_`
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

  void prepareFork() noexcept override;
  void afterForkInParent() noexcept override;
  void afterForkInChild() noexcept override;

 private:
  URLEngine& engine();
  void cancel(std::shared_ptr<URLExchange> exchange);

  UnfairLock lock_;
  URLEngine* engine_ = nullptr;     // made by the first exchange, never destroyed
  URLEngine* abandoned_ = nullptr;  // a forking parent's, kept reachable for leak checkers
};

}  // namespace velum
