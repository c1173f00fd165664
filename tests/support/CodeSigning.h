#pragma once

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace velum::test {

namespace detail {
inline void require(bool isDone, const char* what) {
  if (!isDone) throw std::runtime_error(what);
}
/// What `write` writes.
template <class Write>
std::string written(const char* what, const Write& write) {
  const std::unique_ptr<BIO, int (*)(BIO*)> bio(BIO_new(BIO_s_mem()), BIO_free);
  require(bio && write(bio.get()) == 1, what);
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}
}  // namespace detail

/// What a certificate says.
struct CertificateOptions {
  std::string name = "Maker";
  std::vector<std::string> units{};  ///< Organisational units, as they are, NUL included.
  int unitType = V_ASN1_UTF8STRING;
  bool isAuthority = false;
  std::string keyUsage = isAuthority ? "critical,keyCertSign" : "critical,digitalSignature";
  std::string extendedKeyUsage = isAuthority ? "" : "codeSigning";  ///< None where empty.
  long begin = -3600;                                               ///< Seconds from now.
  long end = 3600;
  const EVP_MD* digest = EVP_sha256();
  int rsaBits = 0;  ///< 0: an elliptic curve of 256 bits.
  bool isEd25519 = false;
};

/// A key with its certificate, and the certificates of those above it but for the root's.
struct SigningIdentity {
  std::shared_ptr<EVP_PKEY> key;
  std::shared_ptr<X509> certificate;
  std::vector<std::shared_ptr<X509>> chain;

  std::string pem() const {
    return detail::written("PEM_write_bio_X509",
                           [this](BIO* bio) { return PEM_write_bio_X509(bio, certificate.get()); });
  }
  std::string keyPem() const {
    return detail::written("PEM_write_bio_PrivateKey", [this](BIO* bio) {
      return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
  }
};

namespace detail {

inline void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  if (value.empty()) return;
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, void (*)(X509_EXTENSION*)> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()), X509_EXTENSION_free);
  require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, value.c_str());
}

inline void addSubject(X509* certificate, const CertificateOptions& options) {
  X509_NAME* const subject = X509_get_subject_name(certificate);
  const auto add = [subject](int kind, int type, const std::string& value) {
    // Not as the library would encode it: also what no tool would make.
    const std::unique_ptr<X509_NAME_ENTRY, void (*)(X509_NAME_ENTRY*)> entry(
        X509_NAME_ENTRY_create_by_NID(nullptr, kind, type,
                                      reinterpret_cast<const unsigned char*>(value.data()),
                                      static_cast<int>(value.size())),
        X509_NAME_ENTRY_free);
    require(entry && X509_NAME_add_entry(subject, entry.get(), -1, 0) == 1, "subject");
  };
  add(NID_commonName, V_ASN1_UTF8STRING, options.name);
  for (const auto& unit : options.units) {
    add(NID_organizationalUnitName, options.unitType, unit);
  }
}

}  // namespace detail

/// A new identity; its own authority where there is no `issuer`.
inline SigningIdentity makeIdentity(const CertificateOptions& options,
                                    const SigningIdentity* issuer = nullptr) {
  using detail::require;
  static long serial = 0;
  SigningIdentity made;
  made.key.reset(options.isEd25519     ? EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")
                 : options.rsaBits > 0 ? EVP_RSA_gen(static_cast<unsigned>(options.rsaBits))
                                       : EVP_EC_gen("P-256"),
                 EVP_PKEY_free);
  made.certificate.reset(X509_new(), X509_free);
  X509* const certificate = made.certificate.get();
  X509* const above = issuer != nullptr ? issuer->certificate.get() : certificate;
  require(made.key && X509_set_version(certificate, X509_VERSION_3) == 1, "key");
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), options.begin);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.end);
  X509_set_pubkey(certificate, made.key.get());
  detail::addSubject(certificate, options);
  X509_set_issuer_name(certificate, X509_get_subject_name(above));
  detail::addExtension(certificate, above, NID_basic_constraints,
                       options.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  detail::addExtension(certificate, above, NID_key_usage, options.keyUsage);
  detail::addExtension(certificate, above, NID_ext_key_usage, options.extendedKeyUsage);
  detail::addExtension(certificate, above, NID_subject_key_identifier, "hash");
  EVP_PKEY* const signer = issuer != nullptr ? issuer->key.get() : made.key.get();
  require(X509_sign(certificate, signer, options.digest) > 0, "X509_sign");
  if (issuer == nullptr) return made;
  made.chain = issuer->chain;
  const bool isRoot = X509_NAME_cmp(X509_get_issuer_name(above), X509_get_subject_name(above)) == 0;
  if (!isRoot) made.chain.push_back(issuer->certificate);
  return made;
}

/// A CMS signature of `content` by all of `signers`, as DER.
inline std::string makeSignature(const std::string& content,
                                 const std::vector<const SigningIdentity*>& signers,
                                 const EVP_MD* digest = EVP_sha256(),
                                 unsigned flags = CMS_DETACHED) {
  using detail::require;
  flags |= CMS_BINARY | CMS_NOSMIMECAP | CMS_PARTIAL;
  const std::unique_ptr<BIO, int (*)(BIO*)> input(
      BIO_new_mem_buf(content.data(), static_cast<int>(content.size())), BIO_free);
  const std::unique_ptr<CMS_ContentInfo, void (*)(CMS_ContentInfo*)> message(
      CMS_sign(nullptr, nullptr, nullptr, input.get(), flags), CMS_ContentInfo_free);
  require(message != nullptr, "CMS_sign");
  for (const SigningIdentity* signer : signers) {
    require(CMS_add1_signer(message.get(), signer->certificate.get(), signer->key.get(), digest,
                            flags) != nullptr,
            "CMS_add1_signer");
    for (const auto& above : signer->chain) CMS_add1_cert(message.get(), above.get());
  }
  require(CMS_final(message.get(), input.get(), nullptr, flags) == 1, "CMS_final");
  return detail::written("i2d_CMS_bio", [&](BIO* bio) { return i2d_CMS_bio(bio, message.get()); });
}

}  // namespace velum::test
