#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Velum/Base/SecretBytes.h"
#include "Velum/Platform/Keychains.h"
#include "Velum/Platform/SecretStatus.h"

namespace velum {

/// Names one generic-password item. Two items differ when any of the three differs; no access
/// group is a value of its own.
struct SecretQuery {
  std::string service;
  std::string account;
  std::optional<std::string> accessGroup;
  /// Set exactly when there is an access group; a store may need no difference.
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

/// The place where the system keeps secrets. Every call ends within ten seconds, whatever happens
/// to the store meanwhile, and changes one place only. Nothing throws but std::bad_alloc.
/// Thread-safe.
///
/// A user's secrets stay in one place: one that is missing later is an error (errSecNotAvailable),
/// never a reason to use another.
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
};

}  // namespace velum
