#include "Velum/KeychainSearch.h"

#include "Velum/Logger/Logger.h"

namespace velum {

std::optional<SecKeychain> firstKeychain(SecPreferencesDomain domain, SecKeychainList list) {
  if (list.status != errSecSuccess) {
    logError({"Velum/KeyChain", "keychain(in:)"}, "Failed searching for keychain in {}{}",
             domainText(domain), secretStatusText(list.status));
    return std::nullopt;
  }
  if (list.keychains.empty()) return std::nullopt;
  return std::move(list.keychains.front());
}

std::string domainText(SecPreferencesDomain domain) {
  return "SecPreferencesDomain(rawValue: " + std::to_string(static_cast<int>(domain)) + ")";
}

}  // namespace velum
