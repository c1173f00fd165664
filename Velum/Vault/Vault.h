#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Velum/Files/LockedFile.h"
#include "Velum/Files/PrivateFolder.h"
#include "Velum/Vault/SecretPlace.h"
#include "Velum/Vault/VaultFormat.h"

namespace velum {

/// The items in one encrypted file, "vault", of a folder. Every call reads the file anew, and a
/// change writes it whole under the folder's lock, so threads and processes lose nothing of each
/// other's.
///
/// The key is the credential "velum-vault-key" where the service manager hands one over, else the
/// file "vault-key" beside the vault, which the first change makes. A vault that can't be opened,
/// for example because its key is missing, is damaged: errSecDecode, and nothing is touched. The
/// failure says which file it was.
class Vault final : public SecretPlace {
 public:
  static constexpr const char* fileName = "vault";
  static constexpr const char* keyFileName = "vault-key";
  static constexpr const char* lockFileName = "lock";

  /// The right to change the folder's files, for one thread of one process. Throws SecretFailure
  /// (errSecTimedOut) when others keep it.
  class Lock {
   public:
    Lock(const PrivateFolder& folder, const SecretCall& call);

   private:
    LockedFile file_;
  };

  /// Both must outlive the object.
  Vault(const PrivateFolder& folder, const SecretCall& call) noexcept
      : folder_(folder), call_(call) {}

  SecretBytes read(const SecretName& name) override;
  void add(const SecretName& name, const SecretBytes& value) override;
  void update(const SecretName& name, const SecretBytes& value) override;
  void remove(const SecretName& name) override;
  std::vector<SecretName> list(const std::optional<std::string>& service) override;
  std::optional<std::string> keychain() override;

 private:
  struct Content {
    VaultTable table;
    std::optional<SecretBytes> key;
  };

  Content load() const;
  std::optional<SecretBytes> key() const;
  void change(const std::function<void(VaultTable&)>& edit);

  const PrivateFolder& folder_;
  const SecretCall& call_;
};

}  // namespace velum
