#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Platform/URLLoader.h"

namespace velum {

/// HTTP exchanges that are tried again when the network fails for a moment. Any thread.
class URLSession {
 public:
  /// Completions run on `queue`. Both must outlive the session and its exchanges.
  explicit URLSession(URLLoader& loader = URLLoader::shared(),
                      DispatchQueue& queue = DispatchQueue::global())
      : loader_(loader), queue_(queue) {}

  /// The process's own, with completions on the global queue. Never destroyed.
  static URLSession& shared();

  /// Sends `request`, and sends it again at once after each transient error (timed out, host not
  /// found or not to be connected, connection lost, and the like) as long as the count of attempts,
  /// which begins with 1, stays within `retries` after it grew: 0 and 1 mean one attempt, 2 means
  /// two in all. `completion` is called exactly once, with the last attempt's outcome. Any answer
  /// of a server is an outcome, whatever its status.
  ///
  /// Cancelling the task also ends further attempts. It may be dropped.
  std::shared_ptr<URLTask> execute(URLRequest request, unsigned retries, URLCompletion completion);

 private:
  URLLoader& loader_;
  DispatchQueue& queue_;
};

/// A name and value of a URL's query. No value is not the same as an empty one: "?a" and "?a=".
struct URLQueryItem {
  std::string name;
  std::optional<std::string> value;

  bool operator==(const URLQueryItem&) const = default;
};

/// The items with names and values as `escapedUrlQueryParam` writes them, in the same order.
std::vector<URLQueryItem> escapedQueryItems(const std::vector<URLQueryItem>& items);

}  // namespace velum
