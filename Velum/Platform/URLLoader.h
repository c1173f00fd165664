#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Velum/HTTP/URLError.h"
#include "Velum/HTTP/URLRequest.h"
#include "Velum/HTTP/URLResponse.h"
#include "Velum/Platform/Dispatch.h"

namespace velum {

/// Either a response with its body, whatever its status, or an error. Must not throw.
using URLCompletion = std::function<void(std::string data, std::optional<URLResponse> response,
                                         std::optional<URLError> error)>;

/// An exchange under way. Letting go of it does not end it. Any thread.
class URLTask {
 public:
  URLTask() = default;
  URLTask(const URLTask&) = delete;
  URLTask& operator=(const URLTask&) = delete;
  virtual ~URLTask() = default;

  /// Ends the exchange: it completes with `URLError::cancelled`, unless it has ended by then.
  /// Returns at once.
  virtual void cancel() = 0;

  /// Bytes of the request's body that were handed to the system so far; begins anew when the body
  /// has to be sent again.
  virtual std::int64_t countOfBytesSent() const = 0;
};

/// Performs HTTP exchanges, any number side by side. Any thread.
///
/// Servers are verified against the system's trusted authorities; proxies are the system's. Up to
/// 20 redirects are followed, to http and https only, and from https never to http: 303 turns every
/// method but HEAD into GET, 301 and 302 turn POST into GET, as browsers do it. Authorization and
/// Cookie fields of the request are not sent on to another host, port or scheme;
/// Proxy-Authorization goes to proxies only. Bodies arrive decompressed and are held in memory
/// whole, up to the request's `largestBody`; a header that does not end is given up. There are no
/// client certificates: a server that demands one fails with `URLError::clientCertificateRequired`.
///
/// After fork(2) the child's loader starts anew; exchanges of the parent never complete there.
class URLLoader {
 public:
  URLLoader() = default;
  URLLoader(const URLLoader&) = delete;
  URLLoader& operator=(const URLLoader&) = delete;
  virtual ~URLLoader() = default;

  /// The process's own. Never destroyed.
  static URLLoader& shared();

  /// Starts an exchange. `completion` is called exactly once, on `queue`, never inside this call;
  /// the queue must live until then.
  virtual std::shared_ptr<URLTask> load(std::shared_ptr<const URLRequest> request,
                                        DispatchQueue& queue, URLCompletion completion) = 0;
};

}  // namespace velum
