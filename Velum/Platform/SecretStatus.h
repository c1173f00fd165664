#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace velum {

/// How an operation on the secret store or on certificates ended: 0, or one of the numbers below.
/// The numbers are those that callers, logs and support know from the system's own keychain; errors
/// of system calls are `errSecErrnoBase` and the errno value.
using SecretStatus = std::int32_t;

inline constexpr SecretStatus errSecSuccess = 0;
inline constexpr SecretStatus errSecUnimplemented = -4;              // not on this system
inline constexpr SecretStatus errSecIO = -36;                        // a tool or library failed
inline constexpr SecretStatus errSecParam = -50;                     // makes no sense
inline constexpr SecretStatus errSecUserCanceled = -128;             // a prompt was refused
inline constexpr SecretStatus errSecNoTrustSettings = -25263;        // of a certificate
inline constexpr SecretStatus errSecNotAvailable = -25291;           // no store, or it went away
inline constexpr SecretStatus errSecNoSuchKeychain = -25294;         // of that name or domain
inline constexpr SecretStatus errSecDuplicateItem = -25299;          // add of an existing item
inline constexpr SecretStatus errSecItemNotFound = -25300;           // the only "missing"
inline constexpr SecretStatus errSecInteractionNotAllowed = -25308;  // locked
inline constexpr SecretStatus errSecDecode = -26275;                 // damaged store
inline constexpr SecretStatus errSecInvalidData = -67673;            // value can't be encoded
inline constexpr SecretStatus errSecErrnoBase = 100'000;
/// The store did not answer in time. 60 is the number of ETIMEDOUT on the system these numbers
/// come from; it is the same on every system.
inline constexpr SecretStatus errSecTimedOut = errSecErrnoBase + 60;

/// The system's text for a status; nothing when it has none. Any thread.
std::optional<std::string> secretErrorText(SecretStatus status);

/// The same, else the number in decimal.
inline std::string secretStatusText(SecretStatus status) {
  return secretErrorText(status).value_or(std::to_string(status));
}

}  // namespace velum
