#include "Velum/CertUtils.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "Velum/KeychainSearch.h"
#include "Velum/Logger/Logger.h"
#include "Velum/PropertyList/DefaultsConversions.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "Velum/CertUtils";

/// The domain's keychain; nothing, and a record, when it has none.
std::optional<SecKeychain> keychainOf(SecPreferencesDomain domain, CertificateStore& store,
                                      std::string_view function) {
  auto keychain = firstKeychain(domain, store.searchList(domain));
  if (!keychain) {
    logError({sourceFile, function}, "There is no keychain for domain {}", domainText(domain));
  }
  return keychain;
}

std::string description(const PropertyList& value) {
  if (const auto* array = value.get<PropertyList::Array>()) {
    std::vector<std::string> parts;
    for (const PropertyList& item : *array) parts.push_back(description(item));
    return fmt::format("[{}]", fmt::join(parts, ", "));
  }
  if (const auto* dictionary = value.get<PropertyList::Dictionary>()) {
    std::vector<std::string> parts;
    for (const auto& [key, item] : *dictionary) parts.push_back(key + ": " + description(item));
    return fmt::format("[{}]", fmt::join(parts, ", "));
  }
  return stringFrom(value).value_or("(bytes or a date)");
}

std::optional<CertUtils::Settings> dictionaries(const PropertyList& value) {
  const auto* const array = value.get<PropertyList::Array>();
  if (array == nullptr) return std::nullopt;
  CertUtils::Settings settings;
  for (const PropertyList& item : *array) {
    const auto* const dictionary = item.get<PropertyList::Dictionary>();
    if (dictionary == nullptr) return std::nullopt;
    settings.push_back(*dictionary);
  }
  return settings;
}

bool saysTrusted(const PropertyList::Dictionary& setting) {
  const auto result = setting.find(trustSettingsResultKey);
  if (result == setting.end()) return false;
  const auto* const number = result->second.get<std::int64_t>();
  return number != nullptr && *number == trustResultTrustRoot;
}

}  // namespace

CertificateStatus CertUtils::addCertificate(const SecCertificate& certificate,
                                            const std::string& name, SecPreferencesDomain domain,
                                            CertificateStore& store) {
  const auto keychain = keychainOf(domain, store, "addCertificate(_:named:toDomain:)");
  if (!keychain) return {errSecNoSuchKeychain};
  return addCertificate(certificate, name, *keychain, store);
}

CertificateStatus CertUtils::addCertificate(const SecCertificate& certificate,
                                            const std::string& name, const SecKeychain& keychain,
                                            CertificateStore& store) {
  CertificateStatus status = store.add(certificate, name, keychain);
  if (!status.isSuccess()) {
    logError({sourceFile, "addCertificate(_:named:toKeychain:)"},
             "Failed to add certificate \"{}\". {}", name, status.text());
  }
  return status;
}

CertificateStatus CertUtils::removeCertificate(const std::string& name, SecPreferencesDomain domain,
                                               CertificateStore& store) {
  const auto keychain = keychainOf(domain, store, "removeCertificate(named:fromDomain:)");
  if (!keychain) return {errSecNoSuchKeychain};
  return removeCertificate(name, *keychain, store);
}

CertificateStatus CertUtils::removeCertificate(const std::string& name, const SecKeychain& keychain,
                                               CertificateStore& store) {
  constexpr std::string_view function = "removeCertificate(named:fromKeychain:)";
  logInfo({sourceFile, function}, "Deleting certs from system keychain by name: {}", name);
  CertificateStatus status = store.remove(name, keychain);
  if (!status.isSuccess()) {
    logError({sourceFile, function}, "Failed to delete certificate \"{}\". {}", name,
             status.text());
  }
  return status;
}

bool CertUtils::isCertificateTrusted(const SecCertificate& certificate, SecPreferencesDomain domain,
                                     CertificateStore& store) {
  const auto settings = copyTrustSettings(certificate, domain, store);
  if (!settings) {
    logError({sourceFile, "isCertificateTrusted(_:inDomain:)"},
             "Failed to get trust settings for {}", certificate.description());
    return false;
  }
  return std::ranges::all_of(*settings, saysTrusted);
}

std::optional<CertUtils::Settings> CertUtils::copyTrustSettings(const SecCertificate& certificate,
                                                                SecPreferencesDomain domain,
                                                                CertificateStore& store) {
  constexpr std::string_view function = "copyTrustSettings(for:inDomain:)";
  const TrustSettings found = store.copyTrustSettings(certificate, domain);
  if (!found.status.isSuccess()) {
    logError({sourceFile, function}, "SecTrustSettingsCopyTrustSettings failed: {}",
             found.status.text());
    return std::nullopt;
  }
  auto settings = dictionaries(found.settings);
  if (!settings) {
    logError({sourceFile, function}, "Failed to coerce {} to [[String:AnyObject]]",
             description(found.settings));
  }
  return settings;
}

CertificateStatus CertUtils::setTrustSettings(const SecCertificate& certificate,
                                              SecPreferencesDomain domain,
                                              CertificateStore& store) {
  CertificateStatus status =
      store.setTrustSettings(certificate, domain, PropertyList(PropertyList::Array{}));
  if (!status.isSuccess()) {
    logInfo({sourceFile, "setTrustSettings(for:inDomain:)"}, "Error set trust settings: {}",
            status.text());
  }
  return status;
}

bool CertUtils::isProcessSigned(int pid, const std::string& teamIdentifier,
                                CodeIdentity& identity) {
  return !teamIdentifier.empty() && identity.check(pid, teamIdentifier).valid;
}

}  // namespace velum
