#pragma once

#include <string>

#include "Velum/KeyStorage.h"
#include "Velum/Platform/SecretStore.h"

namespace velum {

/// A key storage in one keychain item, of this program's service and without an access group.
/// Every change is written before it returns. Content that is damaged is kept in an item with
/// ".damaged" behind its key when it is replaced.
class KeyChainStorage final : public KeyStorageBase {
 public:
  /// `store` must outlive the object.
  explicit KeyChainStorage(std::string key, SecretStore& store = SecretStore::shared());
  KeyChainStorage(const KeyChainStorage&) = delete;
  KeyChainStorage& operator=(const KeyChainStorage&) = delete;
  ~KeyChainStorage() override;

  /// Deletes the item; what is in memory stays. A failure is logged.
  void deleteData() override;

 protected:
  std::optional<SecretBytes> loadData() override;
  void storeData(std::string_view bytes) override;

 private:
  SecretStatus keepDamaged();

  const std::string key_;
  SecretStore& store_;
};

}  // namespace velum
