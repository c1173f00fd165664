#include "Velum/Platform/Linux/SecretChoiceLinux.h"

#include <string_view>

#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/VaultLinux.h"
#include "Velum/Platform/Posix/LockedFile.h"

namespace velum {
namespace {

constexpr std::string_view serviceText = "service\n";
constexpr std::string_view vaultText = "vault\n";

std::optional<SecretPlaceKind> recorded(const PrivateFolder& folder) {
  constexpr std::size_t maximumSize = 4096;
  const auto content = folder.read(secretChoiceFileName, maximumSize);
  if (!content) return std::nullopt;
  if (textView(*content) == serviceText) return SecretPlaceKind::service;
  if (textView(*content) == vaultText) return SecretPlaceKind::vault;
  logError({"SecretStore", "recorded()"}, "{} says neither service nor vault",
           folder.pathOf(secretChoiceFileName));
  throw SecretFailure(errSecDecode);
}

}  // namespace

SecretPlaceKind chooseSecretPlace(const PrivateFolder& folder,
                                  const std::function<SecretPlaceKind()>& probe) {
  if (const auto known = recorded(folder)) return *known;
  const LockedFile lock([&] { return folder.openLock(VaultLinux::lockFileName); });
  if (const auto known = recorded(folder)) return *known;
  const bool hasVault = folder.has(VaultLinux::fileName);
  const SecretPlaceKind choice = hasVault ? SecretPlaceKind::vault : probe();
  const std::string_view text = choice == SecretPlaceKind::service ? serviceText : vaultText;
  folder.replace(secretChoiceFileName, secretBytes(text));
  logDebug({"SecretStore", "chooseSecretPlace()"}, "Secrets are kept in the {}",
           choice == SecretPlaceKind::service ? "Secret Service" : "vault");
  return choice;
}

}  // namespace velum
