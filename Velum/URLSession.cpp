#include "Velum/URLSession.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

#include "Velum/Base/LazyValue.h"
#include "Velum/Base/String.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Logger/Logger.h"

namespace velum {
namespace {

constexpr std::string_view file = "Velum/URLSession";
constexpr std::string_view function = "execute(_:)";

// Worth another attempt at once: the next one may reach the host.
bool isTransient(const URLError& error) {
  constexpr std::array<int, 5> codes{URLError::timedOut, URLError::cannotFindHost,
                                     URLError::cannotConnectToHost, URLError::networkConnectionLost,
                                     URLError::dnsLookupFailed};
  if (error.domain == URLError::posixDomain) return error.code == URLError::protocolWrongType;
  return error.domain == URLError::urlDomain && std::ranges::find(codes, error.code) != codes.end();
}

/// One call of `execute`: the attempts follow each other, so that only `cancel` comes from aside.
class RetryingRequest final : public URLTask, public std::enable_shared_from_this<RetryingRequest> {
 public:
  RetryingRequest(URLLoader& loader, DispatchQueue& queue, URLRequest request, unsigned retries,
                  URLCompletion completion)
      : loader_(loader),
        queue_(queue),
        request_(std::make_shared<const URLRequest>(std::move(request))),
        retries_(retries),
        completion_(std::move(completion)) {}

  void send() {
    unsigned attempt = 0;
    {
      const std::lock_guard guard(lock_);
      attempt = attempt_;
    }
    const auto task = loader_.load(
        request_, queue_,
        [self = shared_from_this()](std::string data, std::optional<URLResponse> response,
                                    std::optional<URLError> error) {
          self->attemptEnded(std::move(data), std::move(response), std::move(error));
        });
    if (isObsolete(task, attempt)) task->cancel();
  }

  void cancel() override {
    std::shared_ptr<URLTask> task;
    {
      const std::lock_guard guard(lock_);
      isCancelled_ = true;
      task = task_;
    }
    if (task) task->cancel();
  }

  std::int64_t countOfBytesSent() const override {
    const std::lock_guard guard(lock_);
    return task_ ? task_->countOfBytesSent() : 0;
  }

 private:
  // Takes the task of an attempt, which may have ended and been followed by the next by now. True
  // when it is not wanted any more.
  bool isObsolete(const std::shared_ptr<URLTask>& task, unsigned attempt) {
    const std::lock_guard guard(lock_);
    if (attempt == attempt_) task_ = task;
    return isCancelled_;
  }

  void attemptEnded(std::string data, std::optional<URLResponse> response,
                    std::optional<URLError> error) {
    if (!error) {
      complete(std::move(data), std::move(response), std::nullopt);
    } else if (wasCancelled()) {
      fail(URLError::url(URLError::cancelled, "cancelled"));
    } else if (!isTransient(*error)) {
      fail(std::move(*error));
    } else if (mayRetry()) {
      logVerbose({file, function}, "New attemp to send request");
      send();
    } else {
      logVerbose({file, function}, "Request - exceeded limit");
      complete({}, std::nullopt, std::move(error));
    }
  }

  bool mayRetry() {
    unsigned attempt = 0;
    {
      const std::lock_guard guard(lock_);
      attempt = ++attempt_;
    }
    logVerbose({file, function}, "Request retries count: {}", attempt);
    return retries_ >= attempt;
  }

  bool wasCancelled() const {
    const std::lock_guard guard(lock_);
    return isCancelled_;
  }

  void fail(URLError error) {
    logError({file, function}, "Request failed with error: {}", error.text);
    complete({}, std::nullopt, std::move(error));
  }

  void complete(std::string data, std::optional<URLResponse> response,
                std::optional<URLError> error) {
    // What the caller's function holds goes with it, even when the caller keeps the task.
    const URLCompletion completion = std::exchange(completion_, nullptr);
    completion(std::move(data), std::move(response), std::move(error));
  }

  URLLoader& loader_;
  DispatchQueue& queue_;
  const std::shared_ptr<const URLRequest> request_;
  const unsigned retries_;
  URLCompletion completion_;  // of the attempt under way, which is one at a time

  mutable ForkSafeLock lock_{ForkSafeLock::Stage::leaf};  // guards what is below
  unsigned attempt_ = 1;
  bool isCancelled_ = false;
  std::shared_ptr<URLTask> task_;
};

}  // namespace

URLSession& URLSession::shared() {
  static constinit LazyStatic<URLSession> instance;
  return instance.get([] { return URLSession(); });
}

std::shared_ptr<URLTask> URLSession::execute(URLRequest request, unsigned retries,
                                             URLCompletion completion) {
  auto exchange = std::make_shared<RetryingRequest>(loader_, queue_, std::move(request), retries,
                                                    std::move(completion));
  exchange->send();
  return exchange;
}

std::vector<URLQueryItem> escapedQueryItems(const std::vector<URLQueryItem>& items) {
  std::vector<URLQueryItem> escaped;
  escaped.reserve(items.size());
  for (const auto& [name, value] : items) {
    escaped.push_back({escapedUrlQueryParam(name), std::nullopt});
    if (value) escaped.back().value = escapedUrlQueryParam(*value);
  }
  return escaped;
}

}  // namespace velum
