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
#include <utility>

#include "Velum/Platform/Curl/AnswerReader.h"
#include "Velum/Platform/Curl/CertificateDemand.h"
#include "Velum/Platform/Curl/CurlErrors.h"
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
///
/// What libcurl calls, and `start`, `finish` and `end`, run under the loader's lock, and call no
/// code of the user's. `feed`, `deliver` and the end of the last reference do, without it.
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

  /// Has pieces of the body ready before libcurl asks for them.
  void feed() noexcept;
  /// Whether `feed` has something to do.
  bool isHungry() const noexcept;
  /// True once after libcurl asked for a piece that was not ready; the transfer has to be woken.
  bool takePause() noexcept { return std::exchange(isPaused_, false); }

  /// The transfer came to its end by itself.
  void finish(CURLcode result);
  /// The exchange has ended with an error, unless it had ended. The transfer is gone then, so it
  /// must not be with a multi handle any more.
  void end(URLError error);
  /// Tells how the exchange ended, once.
  void deliver();
  /// Both.
  void fail(URLError error);

 private:
  using Transfer = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
  using List = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

  bool setHeaders();
  bool append(std::string_view name, const std::string& line);
  void setRequest();
  void setBody();
  void setSafety();
  void setSockets(SocketOwner& sockets);
  std::int64_t bodySize() const noexcept;

  std::size_t readBody(char* buffer, std::size_t size) noexcept;
  void rewindBody() noexcept;
  std::size_t takeHeader(std::string_view line) noexcept;
  void beginAnswer();
  std::size_t takeData(std::string_view bytes) noexcept;
  int openSocket(const curl_sockaddr& address) noexcept;
  URLError failure(CURLcode result, long status) const;
  void noteProgress(curl_off_t received, curl_off_t sent) noexcept;
  template <class Work>
  bool guarded(Work work) noexcept;

  const std::shared_ptr<const URLRequest> request_;
  DispatchQueue& queue_;
  URLCompletion completion_;
  const Canceller canceller_;
  const std::chrono::nanoseconds timeout_;

  Transfer transfer_{nullptr, curl_easy_cleanup};
  List headers_{nullptr, curl_slist_free_all};
  List proxyHeaders_{nullptr, curl_slist_free_all};  // for proxies only
  std::array<char, CURL_ERROR_SIZE> errorText_{};

  std::unique_ptr<BodyStream> body_;  // null where the body is in memory
  std::string ahead_;                 // read of it
  std::size_t taken_ = 0;             // of those bytes, or of the body in memory
  std::int64_t bodyLeft_ = 0;         // not read yet
  bool isRewound_;                    // the stream is to be opened (again)
  bool isPaused_ = false;
  curl_off_t received_ = 0;
  Clock::time_point lastActivity_;
  AnswerReader answer_;
  CertificateDemand demand_;
  URLResponse response_;
  SocketOwner* sockets_ = nullptr;
  int socketError_ = 0;                    // why there was no socket
  std::optional<URLError> callbackError_;  // what made a callback end the transfer
  std::optional<URLError> error_;          // how the exchange ended, if not well
  std::atomic<std::int64_t> sent_{0};
};

}  // namespace velum
