#include "Velum/KeyChainData.h"

#include <mutex>

#include "Velum/KeyChain.h"
#include "Velum/Logger/Logger.h"

namespace velum {
namespace {

constexpr LogSite storeSite(CallPlace place = CallPlace::current()) {
  return {"Velum/KeyChainData", "store(_:)", place};
}

}  // namespace

KeyChainData::KeyChainData(std::string key, SecretStore& store)
    : key_(std::move(key)), store_(store) {}

SecretResult KeyChainData::read() {
  {
    const std::lock_guard guard(lock_);
    if (data_) return {.status = errSecSuccess, .data = *data_};
  }
  return readAgain();
}

SecretResult KeyChainData::readAgain() {
  if (key_.empty()) return {.status = errSecItemNotFound, .data = {}};
  SecretResult found = KeyChain::loadResult(key_, {}, {}, store_);
  if (found.status == errSecSuccess) {
    keep(found.data);
  } else if (found.status == errSecItemNotFound) {
    keep(std::nullopt);
  }
  return found;
}

bool KeyChainData::store(const std::optional<SecretBytes>& value) {
  if (key_.empty()) return false;
  const SecretStatus status =
      value ? KeyChain::save(key_, *value, {}, {}, store_) : KeyChain::remove(key_, {}, {}, store_);
  if (status != errSecSuccess) {
    logError(storeSite(), "Failed to {} {}: status {}", value ? "store" : "delete", key_, status);
    return false;
  }
  keep(value);
  return true;
}

void KeyChainData::keep(std::optional<SecretBytes> value) {
  const std::lock_guard guard(lock_);
  data_ = std::move(value);
}

}  // namespace velum
