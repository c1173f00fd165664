#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Velum/Platform/CertificateStore.h"
#include "Velum/Platform/CodeIdentity.h"

namespace velum {

/// Installs and removes certificates, reads and sets whether they are trusted, and tells whether
/// another process runs a program of ours. Stateless; any thread. Nothing throws but
/// std::bad_alloc: failures are logged and returned.
class CertUtils {
 public:
  using Settings = std::vector<PropertyList::Dictionary>;

  /// Adds the certificate to the domain's keychain under a name. errSecNoSuchKeychain when the
  /// domain has none.
  static CertificateStatus addCertificate(const SecCertificate& certificate,
                                          const std::string& name, SecPreferencesDomain domain,
                                          CertificateStore& store = CertificateStore::shared());
  static CertificateStatus addCertificate(const SecCertificate& certificate,
                                          const std::string& name, const SecKeychain& keychain,
                                          CertificateStore& store = CertificateStore::shared());

  /// Removes all certificates of that name, not only the first.
  static CertificateStatus removeCertificate(const std::string& name, SecPreferencesDomain domain,
                                             CertificateStore& store = CertificateStore::shared());
  static CertificateStatus removeCertificate(const std::string& name, const SecKeychain& keychain,
                                             CertificateStore& store = CertificateStore::shared());

  /// Whether the settings say that it is trusted as a root, for each use they name. False when
  /// there are none.
  static bool isCertificateTrusted(const SecCertificate& certificate, SecPreferencesDomain domain,
                                   CertificateStore& store = CertificateStore::shared());

  /// The settings; an empty list means always trusted. Nothing when there are none or they can't be
  /// read.
  static std::optional<Settings> copyTrustSettings(
      const SecCertificate& certificate, SecPreferencesDomain domain,
      CertificateStore& store = CertificateStore::shared());

  /// Marks the certificate, which must be in the domain's keychain, as always trusted.
  static CertificateStatus setTrustSettings(const SecCertificate& certificate,
                                            SecPreferencesDomain domain,
                                            CertificateStore& store = CertificateStore::shared());

  /// Whether the program that process `pid` runs is validly signed by the team. An empty team
  /// identifier is nobody's.
  static bool isProcessSigned(int pid, const std::string& teamIdentifier,
                              CodeIdentity& identity = CodeIdentity::shared());
};

}  // namespace velum
