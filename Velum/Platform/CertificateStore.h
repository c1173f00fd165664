#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/ByteView.h"
#include "Velum/Platform/Keychains.h"
#include "Velum/Platform/SecretStatus.h"
#include "Velum/PropertyList/PropertyList.h"

namespace velum {

/// An X.509 certificate. Only what could be parsed becomes one. A value; any thread.
class SecCertificate {
 public:
  /// Nothing when the bytes are not exactly one certificate in DER.
  static std::optional<SecCertificate> fromDer(ByteView der);

  /// What a file holds: one certificate in DER, or any number in PEM with whatever else stands
  /// between them. Empty when there is none, or one of them is malformed.
  static std::vector<SecCertificate> fromFile(ByteView content);

  const std::vector<std::uint8_t>& der() const noexcept { return der_; }
  std::string pem() const;
  /// The subject in a few words: its common name, else organisational unit, organisation, mail
  /// address, else nothing. On one line, in UTF-8, whatever the certificate says.
  const std::string& description() const noexcept { return description_; }
  /// SHA-256 of the DER bytes, in hexadecimal.
  std::string fingerprint() const;
  /// Whether it may issue other certificates.
  bool isAuthority() const noexcept { return isAuthority_; }

  bool operator==(const SecCertificate& other) const { return der_ == other.der_; }

 private:
  SecCertificate() = default;

  std::vector<std::uint8_t> der_;
  std::string description_;
  bool isAuthority_ = false;
};

/// How an operation on certificates ended.
struct CertificateStatus {
  SecretStatus number = errSecSuccess;
  /// What the store or one of its tools said of a failure; may be empty.
  std::string detail = {};

  bool isSuccess() const noexcept { return number == errSecSuccess; }
  /// The detail, else the system's text for the number, else the number.
  std::string text() const;
};

/// A certificate and the name it was added under.
struct CertificateItem {
  std::string label;
  SecCertificate certificate;
};

struct CertificateList {
  CertificateStatus status;
  std::vector<CertificateItem> items;
};

/// `settings` means something only when `status` is a success.
struct TrustSettings {
  CertificateStatus status;
  PropertyList settings{PropertyList::Array{}};
};

// An array of settings dictionaries; an empty one means always trusted. Each has a result, and may
// be for one use of the certificate only, else it is for all.
inline constexpr std::string_view trustSettingsResultKey = "kSecTrustSettingsResult";
inline constexpr std::string_view trustSettingsPolicyKey = "kSecTrustSettingsPolicyName";
inline constexpr std::int64_t trustResultTrustRoot = 1;    // an authority all of whose issues count
inline constexpr std::int64_t trustResultTrustAsRoot = 2;  // itself, not what it issues
inline constexpr std::int64_t trustResultDeny = 3;

/// The places where the system keeps certificates and what it thinks of them. The label is a name
/// that several certificates may share. Nothing throws but std::bad_alloc. Thread-safe; calls may
/// read and write files and run tools, so keep them off threads that must not wait.
///
/// Settings may be per use: "sslServer", "sslClient", "SMIME" and "CodeSigning". Setting a
/// certificate that is no authority to always trusted means itself, not what it signs. A place may
/// keep no settings (errSecUnimplemented): what is present there is always trusted. Changes to the
/// machine's (domains common and system) need root.
class CertificateStore {
 public:
  CertificateStore() = default;
  CertificateStore(const CertificateStore&) = delete;
  CertificateStore& operator=(const CertificateStore&) = delete;
  virtual ~CertificateStore() = default;

  /// This machine's. Never destroyed.
  static CertificateStore& shared();

  /// The same, but the machine's certificates are those of the system in the folder `root`, an
  /// image that is being made for instance.
  static std::unique_ptr<CertificateStore> forRoot(const std::string& root);

  /// Where the domain's certificates are. Not the keychains of SecretStore: secrets and
  /// certificates may live in different places, and looking for the one must not unlock or create
  /// the other.
  virtual SecKeychainList searchList(SecPreferencesDomain domain) = 0;

  /// errSecDuplicateItem when it is there already, under whatever label.
  virtual CertificateStatus add(const SecCertificate& certificate, const std::string& label,
                                const SecKeychain& keychain) = 0;
  /// Removes all certificates of that label, and their settings; errSecItemNotFound without any.
  virtual CertificateStatus remove(const std::string& label, const SecKeychain& keychain) = 0;
  virtual CertificateList list(const SecKeychain& keychain) = 0;

  /// errSecNoTrustSettings when there are none.
  virtual TrustSettings copyTrustSettings(const SecCertificate& certificate,
                                          SecPreferencesDomain domain) = 0;
  /// Replaces the settings of a certificate in the domain; nothing means none from now on.
  /// errSecItemNotFound when the certificate is not there, errSecParam for what can't be kept:
  /// rules that were left out would be rules that don't hold.
  virtual CertificateStatus setTrustSettings(const SecCertificate& certificate,
                                             SecPreferencesDomain domain,
                                             const std::optional<PropertyList>& settings) = 0;
};

}  // namespace velum
