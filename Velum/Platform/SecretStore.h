#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/SecretBytes.h"

namespace velum {

/// How an operation on the secret store ended: 0, or one of the numbers below. The numbers are
/// those that callers, logs and support know from the system's own keychain; errors of system
/// calls are `errSecErrnoBase` and the errno value.
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

/// Names one generic-password item. Two items differ when any of the three differs; no access
/// group is a value of its own.
struct SecretQuery {
  std::string service;
  std::string account;
  std::optional<std::string> accessGroup;
  /// Set exactly when there is an access group; Linux stores need no difference.
  bool usesDataProtectionKeychain = false;

  bool operator==(const SecretQuery&) const = default;
};

/// What a search found; `data` is empty unless `status` is 0.
struct SecretResult {
  SecretStatus status = errSecSuccess;
  SecretBytes data;
};

/// The names of the stored items, without their values.
struct SecretList {
  SecretStatus status = errSecSuccess;
  std::vector<SecretQuery> items;
};

/// Whose keychains are meant.
enum class SecPreferencesDomain : std::uint8_t { user, system, common, dynamic };

/// One keychain: what the system calls it (a collection's object path, a vault's file path).
struct SecKeychain {
  std::string name;
};

struct SecKeychainList {
  SecretStatus status = errSecSuccess;
  std::vector<SecKeychain> keychains;
};

/// The place where the system keeps secrets. Every call ends within ten seconds, whatever happens
/// to the store meanwhile, and changes one place only. Nothing throws but std::bad_alloc.
/// Thread-safe.
///
/// Linux: the Secret Service of the user's session; on hosts that have none (headless machines,
/// privileged daemons) an encrypted vault file, $XDG_DATA_HOME/velum/vault. Which of the two is
/// decided once per user and recorded beside the vault; a service that is missing later is an
/// error (errSecNotAvailable), never a silent change of place, and so is one without a default
/// keyring that has held secrets of the user before.
class SecretStore {
 public:
  SecretStore() = default;
  SecretStore(const SecretStore&) = delete;
  SecretStore& operator=(const SecretStore&) = delete;
  virtual ~SecretStore() = default;

  /// The user's own. Never destroyed.
  static SecretStore& shared();

  /// Reads an item. Locked and missing stay apart: errSecItemNotFound means that the store was
  /// read and holds no such item.
  virtual SecretResult copyMatching(const SecretQuery& query) = 0;
  virtual SecretStatus add(const SecretQuery& query, const SecretBytes& value) = 0;
  virtual SecretStatus update(const SecretQuery& query, const SecretBytes& value) = 0;
  virtual SecretStatus remove(const SecretQuery& query) = 0;
  /// The items of `service`, of every access group; of all services this library wrote when absent.
  virtual SecretList list(const std::optional<std::string>& service) = 0;
  virtual SecKeychainList searchList(SecPreferencesDomain domain) = 0;

  /// The system's text for a status; nothing when it has none.
  static std::optional<std::string> errorText(SecretStatus status);
};

}  // namespace velum
