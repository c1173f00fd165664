#include "Velum/KeyChainStorage.h"

#include <fmt/format.h>

#include "Velum/KeyChain.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Sealing/StorageError.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "Velum/KeyChainStorage";

}  // namespace

KeyChainStorage::KeyChainStorage(std::string key, SecretStore& store)
    : KeyStorageBase("KeychainStorage:" + key, 0), key_(std::move(key)), store_(store) {}

KeyChainStorage::~KeyChainStorage() {
  finish();
}

std::optional<SecretBytes> KeyChainStorage::loadData() {
  logDebug({sourceFile, "loadData()"}, "Load from {}", key_);
  SecretResult found = KeyChain::loadResult(key_, {}, {}, store_);
  if (found.status == errSecItemNotFound) return std::nullopt;
  if (found.status != errSecSuccess) throw StorageUnavailable(secretStatusText(found.status));
  return std::move(found.data);
}

void KeyChainStorage::storeData(std::string_view bytes) {
  constexpr std::string_view function = "storeData(_:)";
  logDebug({sourceFile, function}, "Store to {}", key_);
  SecretStatus status = isDamaged() ? keepDamaged() : errSecSuccess;
  if (status == errSecSuccess) status = KeyChain::save(key_, secretBytes(bytes), {}, {}, store_);
  if (status == errSecSuccess) return;
  const std::string text = fmt::format("Failed to store {}: {}", key_, secretStatusText(status));
  logError({sourceFile, function}, "{}", text);
  throw StorageErrorLogged(text);
}

/// Copies the item that is about to be replaced.
SecretStatus KeyChainStorage::keepDamaged() {
  const SecretResult found = KeyChain::loadResult(key_, {}, {}, store_);
  if (found.status == errSecItemNotFound) return errSecSuccess;
  if (found.status != errSecSuccess) return found.status;
  return KeyChain::save(key_ + ".damaged", found.data, {}, {}, store_);
}

void KeyChainStorage::deleteData() {
  const SecretStatus status = KeyChain::remove(key_, {}, {}, store_);
  if (status != errSecSuccess) {
    logError({sourceFile, "deleteData()"}, "Failed to delete {}: {}", key_, status);
  }
}

}  // namespace velum
