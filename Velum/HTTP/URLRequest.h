#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Velum/HTTP/BodySource.h"
#include "Velum/HTTP/HTTPHeaders.h"

namespace velum {

/// What is sent in one HTTP exchange. A plain value; copies share a streamed body.
struct URLRequest {
  /// There is no cache here yet: every policy loads from the origin. The policy is kept, and
  /// `reloadIgnoringLocalCacheData` asks caches on the way for a fresh answer.
  enum class CachePolicy : std::uint8_t {
    useProtocolCachePolicy,
    reloadIgnoringLocalCacheData,
    returnCacheDataElseLoad,
    returnCacheDataDontLoad,
  };

  /// Seconds.
  static constexpr double defaultTimeout = 60;

  std::string url = {};  ///< Absolute, http or https, percent-encoded.
  std::string method = "GET";
  /// Content-Length and Transfer-Encoding are the loader's affair and ignored here.
  HTTPHeaders headers = {};
  std::string body = {};
  /// Sent instead of `body` when there is one.
  std::shared_ptr<const BodySource> bodyStream = {};
  /// How many seconds may pass without a byte moving, from the begin of the request until its
  /// end; looking up the name, connecting and waiting for the answer count. 0 or less: the
  /// default. It does not limit an exchange that makes progress, however slow.
  double timeoutInterval = defaultTimeout;
  /// The largest body of an answer, in bytes after decompression: a larger one fails with
  /// `URLError::dataLengthExceedsMaximum`. No limit where nothing is given.
  std::optional<std::size_t> largestBody = {};
  CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy;
};

}  // namespace velum
