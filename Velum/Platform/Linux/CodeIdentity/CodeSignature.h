#pragma once

#include <openssl/cms.h>
#include <openssl/types.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>

#include "Velum/Base/ByteView.h"
#include "Velum/Platform/CodeIdentity.h"

namespace velum {

/// A detached CMS signature of one signer, as bytes of DER that anybody may have made. The three
/// `require` calls together make it a valid one; each throws CodeRefused when it is not. They may
/// be made in any order; the one about the content costs most, so it goes last.
class CodeSignature {
 public:
  /// A chain of certificates may not be longer; the signer's and the root's count.
  static constexpr int maximumCertificates = 8;

  /// Refuses what is no such signature: other bytes, bytes left over, content inside, none or
  /// several signers, no signer's certificate, a digest other than SHA-256, -384 and -512.
  explicit CodeSignature(std::string_view der);

  /// The signer holds a certificate for signing code that leads to one of `roots`, no weak key or
  /// digest on the way; its key made this signature.
  void requireTrusted(X509_STORE* roots, const CodeCheckOptions& options) const;

  /// The signer's certificate names `team` byte for byte, in UTF-8, as its only organisational
  /// unit.
  void requireTeam(std::string_view team) const;

  /// The digest to be made of the content.
  const EVP_MD* digestAlgorithm() const noexcept { return digest_; }
  /// The signature is one of the content with this digest.
  void requireContent(ByteView digest) const;

 private:
  struct Free {
    void operator()(CMS_ContentInfo* message) const noexcept { CMS_ContentInfo_free(message); }
    void operator()(STACK_OF(X509) * certificates) const noexcept;
  };
  using Certificates = std::unique_ptr<STACK_OF(X509), Free>;

  void findSigner();
  static void requireCodeSigning(X509* certificate);
  static void requireIssuers(const STACK_OF(X509) * chain);

  std::unique_ptr<CMS_ContentInfo, Free> message_;
  Certificates certificates_;
  CMS_SignerInfo* signer_ = nullptr;  // of the message, as is its certificate
  X509* certificate_ = nullptr;
  const EVP_MD* digest_ = nullptr;
};

}  // namespace velum
