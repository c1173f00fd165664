#include "Velum/Platform/Linux/Secrets/SecretChoice.h"

#include <string_view>

#include "Velum/Vault/Vault.h"

namespace velum {
namespace {

constexpr std::string_view serviceText = "service\n";
constexpr std::string_view vaultText = "vault\n";
constexpr std::string_view markText = "Secrets of this user are kept in the Secret Service.\n";

std::optional<SecretPlaceKind> recorded(const PrivateFolder& folder) {
  constexpr std::size_t maximumSize = 4096;
  const auto content = folder.read(secretChoiceFileName, maximumSize);
  if (!content) return std::nullopt;
  if (textView(*content) == serviceText) return SecretPlaceKind::service;
  if (textView(*content) == vaultText) return SecretPlaceKind::vault;
  throw SecretFailure(errSecDecode,
                      folder.pathOf(secretChoiceFileName) + " says neither service nor vault");
}

}  // namespace

SecretChoice chooseSecretPlace(const PrivateFolder& folder, const SecretCall& call,
                               const std::function<SecretPlaceKind()>& probe) {
  if (const auto known = recorded(folder)) return {*known, false};
  const auto hasVault = [&] { return folder.has(Vault::fileName); };
  SecretPlaceKind choice = SecretPlaceKind::service;
  if (hasVault()) {
    choice = SecretPlaceKind::vault;
  } else if (!folder.has(serviceMarkFileName)) {
    choice = probe();
  }
  const Vault::Lock lock(folder, call);
  if (const auto known = recorded(folder)) return {*known, false};
  if (hasVault()) choice = SecretPlaceKind::vault;
  const std::string_view text = choice == SecretPlaceKind::service ? serviceText : vaultText;
  folder.replace(secretChoiceFileName, secretBytes(text));
  return {choice, true};
}

void markService(const PrivateFolder& folder, const SecretCall& call) {
  if (folder.has(serviceMarkFileName)) return;
  const Vault::Lock lock(folder, call);
  if (!folder.has(serviceMarkFileName)) folder.replace(serviceMarkFileName, secretBytes(markText));
}

}  // namespace velum
