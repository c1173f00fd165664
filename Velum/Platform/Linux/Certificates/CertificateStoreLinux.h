#pragma once

#include <string>

#include "Velum/Platform/CertificateStore.h"
#include "Velum/Platform/Linux/Certificates/MachineCertificates.h"

namespace velum {

/// The user's certificates are in the NSS database ~/.pki/nssdb, which browsers read, with settings
/// per use. The keychain "sql:FOLDER" means any such database.
///
/// Those of the machine are the files of one folder, which update-ca-certificates makes known to
/// the machine's programs, without settings.
class CertificateStoreLinux final : public CertificateStore {
 public:
  static constexpr const char* standardUpdater = "/usr/sbin/update-ca-certificates";

  /// `root` is the root folder of the system whose certificates the machine's are; empty for this
  /// one. The user's are those of the user that HOME says at each call.
  explicit CertificateStoreLinux(std::string root = {}, std::string updater = standardUpdater,
                                 const MachineCertificates::Limits& limits = {})
      : machine_(std::move(root), std::move(updater), limits) {}

  SecKeychainList searchList(SecPreferencesDomain domain) override;
  CertificateStatus add(const SecCertificate& certificate, const std::string& label,
                        const SecKeychain& keychain) override;
  CertificateStatus remove(const std::string& label, const SecKeychain& keychain) override;
  CertificateList list(const SecKeychain& keychain) override;
  TrustSettings copyTrustSettings(const SecCertificate& certificate,
                                  SecPreferencesDomain domain) override;
  CertificateStatus setTrustSettings(const SecCertificate& certificate, SecPreferencesDomain domain,
                                     const std::optional<PropertyList>& settings) override;

 private:
  bool isMachine(const SecKeychain& keychain) const { return keychain.name == machine_.folder(); }
  SecKeychain keychain(SecPreferencesDomain domain);

  MachineCertificates machine_;
};

}  // namespace velum
