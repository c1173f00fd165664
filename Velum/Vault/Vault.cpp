#include "Velum/Vault/Vault.h"

#include <fmt/format.h>

#include <cerrno>

#include "Velum/Base/SystemError.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"

namespace velum {
namespace {

/// Bytes. The file is read and written as a whole.
constexpr std::size_t maximumFileSize = std::size_t{64} << 20U;
constexpr std::size_t maximumContentSize = maximumFileSize - 64;  // what the seal adds is less

constexpr const char* credentialName = "/velum-vault-key";

[[noreturn]] void failDamaged(const std::string& path, std::string_view why) {
  throw SecretFailure(errSecDecode, fmt::format("{} {}", path, why));
}

SecretBytes checkedKey(SecretBytes key, const std::string& path) {
  if (key.size() != SealedBox::keySize) failDamaged(path, "does not hold a key of 32 bytes");
  return key;
}

/// What can't be made without randomness or the cipher: keys, seals, and what is under a seal.
template <class Make>
auto made(Make make) {
  try {
    return make();
  } catch (const StorageError&) {
    throw SecretFailure(errSecNotAvailable);
  }
}

VaultTable::iterator existing(VaultTable& table, const SecretName& name) {
  const auto item = table.find(name);
  if (item == table.end()) throw SecretFailure(errSecItemNotFound);
  return item;
}

}  // namespace

Vault::Lock::Lock(const PrivateFolder& folder, const SecretCall& call)
    : file_([&] { return folder.openLock(lockFileName); }, call.lockLimit) {
  if (file_) return;
  throw SecretFailure(errSecTimedOut,
                      folder.pathOf(lockFileName) + " is kept locked by another process");
}

std::optional<SecretBytes> Vault::key() const {
  constexpr std::size_t enough = 4096;  // to see that a file is too long to be a key
  if (call_.credentialsFolder) {
    const std::string path = *call_.credentialsFolder + credentialName;
    if (auto credential = readCredential(path, enough)) {
      return checkedKey(std::move(*credential), path);
    }
  }
  auto key = folder_.read(keyFileName, enough);
  if (!key) return std::nullopt;
  return checkedKey(std::move(*key), folder_.pathOf(keyFileName));
}

Vault::Content Vault::load() const {
  const auto sealed = folder_.read(fileName, maximumFileSize);
  Content content;
  if (!sealed) return content;
  content.key = key();
  const std::string path = folder_.pathOf(fileName);
  if (!content.key) failDamaged(path, "can't be opened: its key is missing");
  const auto plaintext = made([&] { return openVault(*sealed, *content.key); });
  if (!plaintext) failDamaged(path, "is damaged or of another key");
  auto table = decodeVaultTable(*plaintext);
  if (!table) failDamaged(path, "is of an unknown form");
  content.table = std::move(*table);
  return content;
}

void Vault::change(const std::function<void(VaultTable&)>& edit) {
  const Lock lock(folder_, call_);
  Content content = load();
  edit(content.table);
  const SecretBytes plaintext = encodeVaultTable(content.table);
  if (plaintext.size() > maximumContentSize) throw SystemError(EFBIG, folder_.pathOf(fileName));
  if (!content.key) content.key = key();
  call_.requireTime();  // the lock may have been long in coming
  if (!content.key) {
    content.key = made(SealedBox::newKey);
    folder_.replace(keyFileName, *content.key);
  }
  folder_.replace(fileName, made([&] { return sealVault(plaintext, *content.key); }));
}

SecretBytes Vault::read(const SecretName& name) {
  Content content = load();
  return std::move(existing(content.table, name)->second);
}

void Vault::add(const SecretName& name, const SecretBytes& value) {
  change([&](VaultTable& table) {
    if (!table.emplace(name, value).second) throw SecretFailure(errSecDuplicateItem);
  });
}

void Vault::update(const SecretName& name, const SecretBytes& value) {
  change([&](VaultTable& table) { existing(table, name)->second = value; });
}

void Vault::remove(const SecretName& name) {
  change([&](VaultTable& table) { table.erase(existing(table, name)); });
}

std::vector<SecretName> Vault::list(const std::optional<std::string>& service) {
  const Content content = load();
  std::vector<SecretName> names;
  for (const auto& [name, value] : content.table) {
    if (!service || name.service == *service) names.push_back(name);
  }
  return names;
}

std::optional<std::string> Vault::keychain() {
  return folder_.pathOf(fileName);
}

}  // namespace velum
