#pragma once

#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Velum/URLSession.h"
#include "tests/support/Waiting.h"

namespace velum::test {

/// How an exchange ended.
struct Outcome {
  std::string data;
  std::optional<URLResponse> response;
  std::optional<URLError> error;

  int status() const { return response ? response->statusCode : -1; }
  /// "domain code", empty without an error.
  std::string failure() const {
    return error ? error->domain + ' ' + std::to_string(error->code) : std::string();
  }
};

/// An exchange under way. A second completion would stop the process.
class PendingExchange {
 public:
  explicit PendingExchange(URLRequest request, unsigned retries = 0,
                           URLSession& session = URLSession::shared()) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    outcome_ = promise->get_future();
    task_ = session.execute(
        std::move(request), retries,
        [promise](std::string data, std::optional<URLResponse> response,
                  std::optional<URLError> error) {
          promise->set_value({std::move(data), std::move(response), std::move(error)});
        });
  }

  void cancel() const { task_->cancel(); }
  const URLTask& task() const { return *task_; }
  /// Waits; an outcome with nothing in it when none came.
  Outcome end() {
    if (outcome_.wait_for(deadline) != std::future_status::ready) return {};
    return outcome_.get();
  }

 private:
  std::future<Outcome> outcome_;
  std::shared_ptr<URLTask> task_;
};

inline Outcome exchanged(URLRequest request, unsigned retries = 0) {
  return PendingExchange(std::move(request), retries).end();
}

}  // namespace velum::test
