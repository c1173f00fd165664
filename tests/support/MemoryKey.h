#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <utility>

#include "Velum/KeyChainData.h"
#include "Velum/Sealing/SealedBox.h"

namespace velum::test {

/// The key of a storage, in memory, that can be out of reach.
class MemoryKey final : public KeyChainDataProtocol {
 public:
  explicit MemoryKey(std::optional<SecretBytes> key = std::nullopt) : value(std::move(key)) {}

  SecretResult read() override {
    SecretResult found = stored();
    if (const auto hook = std::exchange(afterRead, {})) hook();
    return found;
  }
  bool store(const std::optional<SecretBytes>& newValue) override {
    const std::lock_guard guard(mutex_);
    if (refusesToStore) return false;
    value = newValue;
    return true;
  }

  std::optional<SecretBytes> value;
  SecretStatus status = errSecSuccess;
  bool refusesToStore = false;
  std::function<void()> afterRead;  // runs once: what happens before the result is used

 private:
  SecretResult stored() {
    const std::lock_guard guard(mutex_);
    if (status != errSecSuccess) return {.status = status, .data = {}};
    if (!value) return {.status = errSecItemNotFound, .data = {}};
    return {.status = errSecSuccess, .data = *value};
  }

  std::mutex mutex_;
};

}  // namespace velum::test
