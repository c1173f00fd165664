#include "Velum/Platform/Curl/CurlErrors.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string_view>

#include "Velum/Base/String.h"

namespace velum {
namespace {

// CURLE_TOO_LARGE, which older versions don't have: a header, here.
constexpr auto tooLarge = static_cast<CURLcode>(100);

struct Row {
  CURLcode from;
  URLError::Code to;
};

// Where a code alone decides.
constexpr std::array<Row, 25> table{{
    {CURLE_UNSUPPORTED_PROTOCOL, URLError::unsupportedURL},
    {CURLE_URL_MALFORMAT, URLError::badURL},
    {CURLE_COULDNT_RESOLVE_PROXY, URLError::dnsLookupFailed},
    {CURLE_COULDNT_RESOLVE_HOST, URLError::cannotFindHost},
    {CURLE_COULDNT_CONNECT, URLError::cannotConnectToHost},
    {CURLE_PROXY, URLError::cannotConnectToHost},
    {CURLE_WEIRD_SERVER_REPLY, URLError::badServerResponse},
    {CURLE_HTTP2, URLError::networkConnectionLost},
    {CURLE_HTTP2_STREAM, URLError::networkConnectionLost},
    {CURLE_PARTIAL_FILE, URLError::networkConnectionLost},
    {CURLE_GOT_NOTHING, URLError::networkConnectionLost},
    {CURLE_SEND_ERROR, URLError::networkConnectionLost},
    {CURLE_OPERATION_TIMEDOUT, URLError::timedOut},
    {CURLE_ABORTED_BY_CALLBACK, URLError::cancelled},
    {CURLE_TOO_MANY_REDIRECTS, URLError::httpTooManyRedirects},
    {CURLE_BAD_CONTENT_ENCODING, URLError::cannotDecodeContentData},
    {CURLE_SEND_FAIL_REWIND, URLError::requestBodyStreamExhausted},
    {CURLE_SSL_CONNECT_ERROR, URLError::secureConnectionFailed},
    {CURLE_SSL_CIPHER, URLError::secureConnectionFailed},
    {CURLE_SSL_CACERT_BADFILE, URLError::secureConnectionFailed},
    {CURLE_PEER_FAILED_VERIFICATION, URLError::serverCertificateUntrusted},
    {CURLE_SSL_ISSUER_ERROR, URLError::serverCertificateUntrusted},
    {CURLE_SSL_INVALIDCERTSTATUS, URLError::serverCertificateUntrusted},
    {CURLE_SSL_CERTPROBLEM, URLError::clientCertificateRejected},
    {CURLE_SSL_CLIENTCERT, URLError::clientCertificateRequired},
}};

// Where the system's error of a failed connection says more than libcurl's.
URLError::Code connectionCode(long systemError) {
  switch (systemError) {
    case ENETUNREACH:
    case ENETDOWN:
      return URLError::notConnectedToInternet;
    case ETIMEDOUT:
      return URLError::timedOut;
    default:
      return URLError::cannotConnectToHost;
  }
}

URLError::Code certificateCode(long verifyResult) {
  switch (verifyResult) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return URLError::serverCertificateHasBadDate;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return URLError::serverCertificateNotYetValid;
    default:
      return URLError::serverCertificateUntrusted;
  }
}

// A connection that broke while something was to be received, an answer that makes no sense, and
// what a server says in TLS after the handshake: only the text tells them apart.
URLError::Code receiveCode(const CurlFailure& failure) {
  const std::string_view text = failure.text;
  const auto has = [text](std::string_view part) {
    return text.find(part) != std::string_view::npos;
  };
  if (has("certificate required")) return URLError::clientCertificateRequired;
  if (has("certificate") && has("alert")) return URLError::clientCertificateRejected;
  const bool isBroken = failure.systemError != 0 || has("Recv failure") || has("unexpected eof") ||
                        has("SYSCALL") || (has("errno ") && !has("errno 0"));
  if (isBroken) return URLError::networkConnectionLost;
  return has("SSL") ? URLError::secureConnectionFailed : URLError::badServerResponse;
}

URLError::Code code(const CurlFailure& failure) {
  if (failure.code == CURLE_RECV_ERROR) return receiveCode(failure);
  if (failure.code == tooLarge) return URLError::badServerResponse;
  if (failure.code == CURLE_COULDNT_CONNECT) return connectionCode(failure.systemError);
  if (failure.code == CURLE_PEER_FAILED_VERIFICATION) return certificateCode(failure.verifyResult);
  const auto* const row = std::ranges::find(table, failure.code, &Row::from);
  return row == table.end() ? URLError::unknown : row->to;
}

}  // namespace

URLError urlError(const CurlFailure& failure) {
  std::string text = failure.text.empty() ? curl_easy_strerror(failure.code) : failure.text;
  // What libcurl can't use of a proxy it quotes, with the password.
  if (text.find("roxy") != std::string::npos && text.find('\'') != std::string::npos) {
    text = "http_proxy, https_proxy or all_proxy does not name a usable proxy; check its value";
  }
  text = repairedUtf8(text);
  if (failure.code == CURLE_OUT_OF_MEMORY) return URLError::posix(ENOMEM, std::move(text));
  if (failure.code == CURLE_SEND_ERROR && failure.systemError == EPROTOTYPE) {
    return URLError::posix(URLError::protocolWrongType, std::move(text));
  }
  return URLError::url(code(failure), std::move(text));
}

CURLcode checkedUrl(const std::string& url) {
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), curl_url_cleanup);
  if (!parsed) return CURLE_OUT_OF_MEMORY;
  // A text with a NUL would be cut there.
  if (url.find('\0') != std::string::npos) return CURLE_URL_MALFORMAT;
  if (url.empty()) return CURLE_UNSUPPORTED_PROTOCOL;  // malformed to some releases of libcurl
  switch (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0)) {
    case CURLUE_OK:
      break;
    case CURLUE_BAD_SCHEME:
    case CURLUE_UNSUPPORTED_SCHEME:
      return CURLE_UNSUPPORTED_PROTOCOL;
    case CURLUE_OUT_OF_MEMORY:
      return CURLE_OUT_OF_MEMORY;
    default:
      return CURLE_URL_MALFORMAT;
  }
  char* scheme = nullptr;
  curl_url_get(parsed.get(), CURLUPART_SCHEME, &scheme, 0);
  const std::unique_ptr<char, decltype(&curl_free)> owner(scheme, curl_free);
  const std::string_view name = scheme == nullptr ? "" : scheme;
  return name == "http" || name == "https" ? CURLE_OK : CURLE_UNSUPPORTED_PROTOCOL;
}

}  // namespace velum
