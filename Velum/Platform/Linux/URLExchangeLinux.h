#pragma once

#include <curl/curl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Platform/Linux/CurlErrors.h"
#include "Velum/Platform/URLLoader.h"

namespace velum {

/// Makes and closes the sockets of exchanges.
class SocketOwner {
 public:
  SocketOwner() = default;
  SocketOwner(const SocketOwner&) = delete;
  SocketOwner& operator=(const SocketOwner&) = delete;
  virtual ~SocketOwner() = default;

  /// As socket(2): -1 and errno on failure. No program that is started inherits it.
  virtual int open(int family, int type, int protocol) noexcept = 0;
  virtual void close(int socket) noexcept = 0;
};

/// One exchange: a libcurl transfer and what it fills. Made on the caller's thread; from `start`
/// on, all but `cancel` and `countOfBytesSent` belong to the loader's thread.
class URLExchange final : public URLTask, public std::enable_shared_from_this<URLExchange> {
 public:
  using Clock = std::chrono::steady_clock;
  /// Tells the loader's thread that the exchange was cancelled.
  using Canceller = std::function<void(std::shared_ptr<URLExchange>)>;

  URLExchange(std::shared_ptr<const URLRequest> request, DispatchQueue& queue,
              URLCompletion completion, Canceller canceller);

  /// Makes the transfer; an error when there is something wrong with the request.
  std::optional<URLError> prepare(SocketOwner& sockets);

  void cancel() override;
  std::int64_t countOfBytesSent() const override { return sent_.load(std::memory_order_relaxed); }

  CURL* transfer() const noexcept { return transfer_.get(); }
  static URLExchange& of(CURL* transfer);
  void start() noexcept { lastActivity_ = Clock::now(); }
  /// When the request has timed out unless something moves before.
  Clock::time_point deadline() const noexcept { return lastActivity_ + timeout_; }

  /// The transfer came to its end by itself.
  void finish(CURLcode result);
  /// Completes with an error, unless the exchange has completed. The transfer is gone then, so it
  /// must not be with a multi handle any more.
  void fail(URLError error);

 private:
  using Transfer = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
  using List = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

  std::optional<URLError> setHeaders();
  bool append(const std::string& line);
  void setRequest();
  void setBody();
  void setSafety(SocketOwner& sockets);
  std::int64_t bodySize() const noexcept;
  void openBody();

  std::size_t readBody(char* buffer, std::size_t size) noexcept;
  bool rewindBody() noexcept;
  std::size_t takeHeader(std::string_view line) noexcept;
  std::size_t takeData(std::string_view bytes) noexcept;
  void noteProgress(curl_off_t received, curl_off_t sent) noexcept;
  template <class Work>
  bool guarded(Work work) noexcept;

  void complete(std::string data, std::optional<URLResponse> response,
                std::optional<URLError> error);

  const std::shared_ptr<const URLRequest> request_;
  DispatchQueue& queue_;
  URLCompletion completion_;
  const Canceller canceller_;
  const std::chrono::nanoseconds timeout_;

  Transfer transfer_{nullptr, curl_easy_cleanup};
  List headers_{nullptr, curl_slist_free_all};
  std::array<char, CURL_ERROR_SIZE> errorText_{};

  std::unique_ptr<BodyStream> body_;
  std::int64_t bodyLeft_ = 0;
  curl_off_t received_ = 0;
  Clock::time_point lastActivity_;
  URLResponse response_;
  std::string data_;
  std::optional<URLError> callbackError_;  // what made a callback end the transfer
  std::atomic<std::int64_t> sent_{0};
};

}  // namespace velum
