#pragma once

#include <chrono>
#include <optional>

#include "Velum/HTTP/HTTPHeaders.h"
#include "Velum/HTTP/URLError.h"
#include "Velum/HTTP/URLRequest.h"

namespace velum {

// What holds for a request whoever sends it.

/// Why the request's method or one of its header fields can't be sent; nothing when all can.
std::optional<URLError> requestError(const URLRequest& request);

/// The header fields to send: the request's, without white space around their values and without
/// those that are the loader's affair, and what its cache policy asks of caches on the way.
HTTPHeaders headersToSend(const URLRequest& request);

/// How long may pass without a byte moving; at most a week.
std::chrono::nanoseconds timeoutOf(const URLRequest& request);

}  // namespace velum
