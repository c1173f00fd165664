#pragma once

#include <string>

#include "Velum/HTTP/HTTPHeaders.h"

namespace velum {

/// What a server answered, without the body.
struct URLResponse {
  int statusCode = 0;
  HTTPHeaders headers;
  /// Where the answer came from in the end, behind all redirects. It may hold what is secret: a
  /// password before the host, a token in the query.
  std::string url;

  bool isSuccess() const noexcept { return statusCode >= 200 && statusCode < 300; }
};

}  // namespace velum
