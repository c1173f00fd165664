#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace velum {

/// Why an exchange failed. `text` says it for a log: it may name the host, never a path, query,
/// header or password.
struct URLError {
  static constexpr std::string_view urlDomain = "NSURLErrorDomain";
  /// Codes are this system's errno values, but for `protocolWrongType`.
  static constexpr std::string_view posixDomain = "NSPOSIXErrorDomain";

  /// Codes of `urlDomain`.
  enum Code : int {
    unknown = -1,
    cancelled = -999,
    badURL = -1000,
    timedOut = -1001,
    unsupportedURL = -1002,
    cannotFindHost = -1003,
    cannotConnectToHost = -1004,
    networkConnectionLost = -1005,
    dnsLookupFailed = -1006,
    httpTooManyRedirects = -1007,
    notConnectedToInternet = -1009,
    badServerResponse = -1011,
    cannotDecodeContentData = -1016,
    requestBodyStreamExhausted = -1021,
    dataLengthExceedsMaximum = -1103,
    secureConnectionFailed = -1200,
    serverCertificateHasBadDate = -1201,
    serverCertificateUntrusted = -1202,
    serverCertificateNotYetValid = -1204,
    clientCertificateRejected = -1205,
    clientCertificateRequired = -1206,
  };

  /// EPROTOTYPE as the platform this library was designed for numbers it: there a send fails with
  /// it when the peer is just closing the connection. Systems with another number use this one
  /// all the same, so that callers need to know one only.
  static constexpr int protocolWrongType = 41;

  std::string domain;
  int code = unknown;
  std::string text;

  static URLError url(Code code, std::string text) {
    return {std::string(urlDomain), code, std::move(text)};
  }
  static URLError posix(int code, std::string text) {
    return {std::string(posixDomain), code, std::move(text)};
  }
  bool is(Code expected) const noexcept { return domain == urlDomain && code == expected; }
};

}  // namespace velum
