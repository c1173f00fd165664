#pragma once

#include <curl/curl.h>

#include <string>

#include "Velum/HTTP/URLError.h"

namespace velum {

/// What libcurl tells of a failed transfer.
struct CurlFailure {
  CURLcode code = CURLE_OK;
  long systemError = 0;   ///< CURLINFO_OS_ERRNO: of the call that failed; 0 for none.
  long verifyResult = 0;  ///< CURLINFO_SSL_VERIFYRESULT: what was wrong with the certificate.
  std::string text = {};  ///< CURLOPT_ERRORBUFFER; may be empty.
};

/// The one table from libcurl's codes to those of the seam. No code of libcurl is left out: what
/// is not in the table is `URLError::unknown`.
URLError urlError(const CurlFailure& failure);

/// CURLE_OK for an absolute URL of http or https; CURLE_UNSUPPORTED_PROTOCOL for another scheme or
/// none, else what is wrong with it. libcurl itself would guess a missing scheme.
CURLcode checkedUrl(const std::string& url);

}  // namespace velum
