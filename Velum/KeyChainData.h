#pragma once

#include <optional>
#include <string>

#include "Velum/Base/SecretBytes.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Platform/SecretStore.h"

namespace velum {

/// One secret value that is kept somewhere. Thread-safe; nothing throws.
class KeyChainDataProtocol {
 public:
  KeyChainDataProtocol() = default;
  KeyChainDataProtocol(const KeyChainDataProtocol&) = delete;
  KeyChainDataProtocol& operator=(const KeyChainDataProtocol&) = delete;
  virtual ~KeyChainDataProtocol() = default;

  /// The value and how the search for it ended. Only errSecItemNotFound means that there is none;
  /// any other failure that it can't be read now, so that nobody may conclude that it is lost.
  virtual SecretResult read() = 0;
  /// The same, whatever is kept in memory: what somebody else may have stored meanwhile.
  virtual SecretResult readAgain() { return read(); }
  /// The value; nothing when it is missing or can't be read.
  std::optional<SecretBytes> data() {
    SecretResult found = read();
    if (found.status != errSecSuccess) return std::nullopt;
    return std::move(found.data);
  }

  /// Replaces the value, or deletes it when nothing is given. False, with a record, on failure.
  virtual bool store(const std::optional<SecretBytes>& value) = 0;
};

/// The keychain's value of one key, of this program's service and without an access group. Once
/// read it is kept in memory. An empty key names nothing: it is missing and can't be stored.
class KeyChainData final : public KeyChainDataProtocol {
 public:
  /// `store` must outlive the object.
  explicit KeyChainData(std::string key, SecretStore& store = SecretStore::shared());

  const std::string& key() const noexcept { return key_; }

  SecretResult read() override;
  SecretResult readAgain() override;
  bool store(const std::optional<SecretBytes>& value) override;

 private:
  void keep(std::optional<SecretBytes> value);

  const std::string key_;
  SecretStore& store_;
  ForkSafeLock lock_{ForkSafeLock::Stage::leaf};
  std::optional<SecretBytes> data_;  // nothing: not read yet
};

}  // namespace velum
