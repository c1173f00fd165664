#include "Velum/Platform/Linux/CodeIdentity/CodeSignature.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <new>

#include "Velum/Base/KeepOpenSsl.h"
#include "Velum/Platform/Linux/CodeIdentity/CodeRefused.h"

namespace velum {
namespace {

// 112 bits: RSA of 2048 bits, no SHA-1.
constexpr int securityLevel = 2;

/// Asks for the one value of a signed attribute that must be there once.
constexpr int onlyValue = -3;

struct FreeText {
  void operator()(unsigned char* text) const noexcept { OPENSSL_free(text); }
};

/// The certificate's only organisational unit, in UTF-8.
std::string organisationalUnit(X509* certificate) {
  const X509_NAME* const subject = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
  if (index < 0) throw CodeRefused("the signer's certificate has no organisational unit (OU)");
  if (X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, index) >= 0) {
    throw CodeRefused("the signer's certificate names more than one organisational unit (OU)");
  }
  unsigned char* text = nullptr;
  const int length =
      ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  const std::unique_ptr<unsigned char, FreeText> owner(text);
  if (length < 0) throw CodeRefused("the organisational unit of the signer is not text");
  return {text, text + length};
}

bool mayServe(X509* certificate, std::uint32_t usages) {
  const bool isLimited = (X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) != 0;
  return isLimited && (X509_get_extended_key_usage(certificate) & usages) != 0;
}

const EVP_MD* strongDigest(const X509_ALGOR* algorithm) {
  const ASN1_OBJECT* name = nullptr;
  X509_ALGOR_get0(&name, nullptr, nullptr, algorithm);
  switch (OBJ_obj2nid(name)) {
    case NID_sha256:
      return EVP_sha256();
    case NID_sha384:
      return EVP_sha384();
    case NID_sha512:
      return EVP_sha512();
    default:
      throw CodeRefused("the signature's digest is not SHA-256, SHA-384 or SHA-512");
  }
}

}  // namespace

void CodeSignature::Free::operator()(STACK_OF(X509) * certificates) const noexcept {
  sk_X509_pop_free(certificates, X509_free);
}

CodeSignature::CodeSignature(std::string_view der) {
  const auto* position = byteView(der).data();
  const auto* const end = position + der.size();
  message_.reset(d2i_CMS_ContentInfo(nullptr, &position, static_cast<long>(der.size())));
  if (!message_) throw CodeRefused("the signature is damaged, or it is not a CMS signature (DER)");
  if (position != end) throw CodeRefused("bytes follow the signature");
  if (OBJ_obj2nid(CMS_get0_type(message_.get())) != NID_pkcs7_signed) {
    throw CodeRefused("the signature is a CMS message of another kind");
  }
  if (CMS_is_detached(message_.get()) != 1 ||
      OBJ_obj2nid(CMS_get0_eContentType(message_.get())) != NID_pkcs7_data) {
    throw CodeRefused("the signature is not detached: it holds its own content");
  }
  findSigner();
}

void CodeSignature::findSigner() {
  STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(message_.get());
  if (sk_CMS_SignerInfo_num(signers) != 1) throw CodeRefused("there is not exactly one signer");
  signer_ = sk_CMS_SignerInfo_value(signers, 0);
  certificates_.reset(CMS_get1_certs(message_.get()));
  if (sk_X509_num(certificates_.get()) > maximumCertificates) {
    throw CodeRefused("the signature holds more certificates than a chain may have");
  }
  if (CMS_set1_signers_certs(message_.get(), nullptr, 0) != 1) {
    throw CodeRefused("the signature lacks the signer's certificate");
  }
  X509_ALGOR* digest = nullptr;
  CMS_SignerInfo_get0_algs(signer_, nullptr, &certificate_, &digest, nullptr);
  digest_ = strongDigest(digest);
}

void CodeSignature::requireCodeSigning(X509* certificate) {
  if (!mayServe(certificate, XKU_CODE_SIGN)) {
    throw CodeRefused("the signer's certificate is not for signing code (extended key usage)");
  }
  if ((X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) == 0) {
    throw CodeRefused("the signer's certificate is not for signatures (key usage)");
  }
  if ((X509_get_extension_flags(certificate) & EXFLAG_CA) != 0) {
    throw CodeRefused("the signer's certificate is an authority's");
  }
}

/// The library looks at whether somebody is an authority, not at what its usages limit it to; and
/// it takes a root for its own signer.
void CodeSignature::requireIssuers(const STACK_OF(X509) * chain) {
  if (sk_X509_num(chain) < 2) throw CodeRefused("the signer's certificate is self-signed");
  for (int place = 1; place < sk_X509_num(chain); ++place) {
    X509* const issuer = sk_X509_value(chain, place);
    const bool isLimited = (X509_get_extension_flags(issuer) & EXFLAG_XKUSAGE) != 0;
    if (isLimited && !mayServe(issuer, XKU_CODE_SIGN | XKU_ANYEKU)) {
      throw CodeRefused("an authority of the signer's is not one for signing code");
    }
  }
}

void CodeSignature::requireTrusted(X509_STORE* roots, const CodeCheckOptions& options) const {
  requireCodeSigning(certificate_);
  const std::unique_ptr<X509_STORE_CTX, void (*)(X509_STORE_CTX*)> context(X509_STORE_CTX_new(),
                                                                           X509_STORE_CTX_free);
  if (!context ||
      X509_STORE_CTX_init(context.get(), roots, certificate_, certificates_.get()) != 1) {
    throw std::bad_alloc();
  }
  X509_VERIFY_PARAM* const how = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_depth(how, maximumCertificates - 2);  // counts what is in between
  X509_VERIFY_PARAM_set_auth_level(how, securityLevel);
  if (!options.strictValidity) X509_VERIFY_PARAM_set_flags(how, X509_V_FLAG_NO_CHECK_TIME);
  if (X509_verify_cert(context.get()) != 1) {
    throw CodeRefused(std::string("the signer's certificate is not trusted: ") +
                      X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get())));
  }
  requireIssuers(X509_STORE_CTX_get0_chain(context.get()));

  // The signed attributes hold the content's digest; they are what the key has signed.
  if (CMS_signed_get_attr_count(signer_) <= 0 || CMS_SignerInfo_verify(signer_) != 1) {
    throw CodeRefused("the signature was not made with the key of the signer's certificate");
  }
}

void CodeSignature::requireTeam(std::string_view team) const {
  const std::string unit = organisationalUnit(certificate_);
  if (unit.find('\0') != std::string::npos || unit != team) {
    throw CodeRefused("it is signed by another team");
  }
}

void CodeSignature::requireContent(ByteView digest) const {
  const auto* const type = static_cast<const ASN1_OBJECT*>(CMS_signed_get0_data_by_OBJ(
      signer_, OBJ_nid2obj(NID_pkcs9_contentType), onlyValue, V_ASN1_OBJECT));
  const auto* const signedDigest =
      static_cast<const ASN1_OCTET_STRING*>(CMS_signed_get0_data_by_OBJ(
          signer_, OBJ_nid2obj(NID_pkcs9_messageDigest), onlyValue, V_ASN1_OCTET_STRING));
  if (type == nullptr || OBJ_obj2nid(type) != NID_pkcs7_data || signedDigest == nullptr) {
    throw CodeRefused("the signature does not say what it signs");
  }
  const ByteView expected(ASN1_STRING_get0_data(signedDigest),
                          static_cast<std::size_t>(ASN1_STRING_length(signedDigest)));
  if (!std::equal(expected.begin(), expected.end(), digest.begin(), digest.end())) {
    throw CodeRefused("its program is not the one that was signed: the content differs");
  }
}

}  // namespace velum
