#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <new>

#include "Velum/Base/KeepOpenSsl.h"
#include "Velum/Base/String.h"
#include "Velum/Platform/CertificateStore.h"

namespace velum {
namespace {

struct Free {
  void operator()(BIO* bio) const noexcept { BIO_free(bio); }
  void operator()(X509* certificate) const noexcept { X509_free(certificate); }
  void operator()(char* text) const noexcept { OPENSSL_free(text); }
  void operator()(unsigned char* bytes) const noexcept { OPENSSL_free(bytes); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

/// Errors of what is only tried are nobody's: the thread's list is left as it was.
class QuietErrors {
 public:
  QuietErrors() { ERR_set_mark(); }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;
  ~QuietErrors() { ERR_pop_to_mark(); }
};

Owned<BIO> reader(ByteView bytes) {
  Owned<BIO> bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  if (!bio) throw std::bad_alloc();
  return bio;
}

Owned<X509> parsed(ByteView der) {
  constexpr std::size_t most = std::numeric_limits<int>::max();  // the library counts in int
  if (der.empty() || der.size() > most) return nullptr;
  const unsigned char* at = der.data();
  Owned<X509> certificate(d2i_X509(nullptr, &at, static_cast<long>(der.size())));
  return at == der.data() + der.size() ? std::move(certificate) : nullptr;
}

/// The last entry of that kind, which is the most specific one.
std::optional<std::string> entry(const X509_NAME* name, int kind) {
  int found = -1;
  for (int at = -1; (at = X509_NAME_get_index_by_NID(name, kind, at)) >= 0;) found = at;
  if (found < 0) return std::nullopt;
  unsigned char* bytes = nullptr;
  const int size =
      ASN1_STRING_to_UTF8(&bytes, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, found)));
  if (size < 0) return std::nullopt;
  const Owned<unsigned char> owner(bytes);
  return std::string(bytes, bytes + size);
}

std::string summary(const X509_NAME* name) {
  constexpr std::array kinds{NID_commonName, NID_organizationalUnitName, NID_organizationName,
                             NID_pkcs9_emailAddress};
  for (const int kind : kinds) {
    auto text = entry(name, kind);
    if (!text) continue;
    std::ranges::replace_if(
        *text, [](unsigned char c) { return c < ' ' || c == '\x7F'; }, ' ');
    return repairedUtf8(*text);
  }
  return {};
}

bool isPemFile(ByteView content) {
  constexpr std::string_view mark = "-----BEGIN ";
  const auto* const text = reinterpret_cast<const char*>(content.data());  // NOLINT: bytes
  return std::string_view(text, content.size()).find(mark) != std::string_view::npos;
}

}  // namespace

std::optional<SecCertificate> SecCertificate::fromDer(ByteView der) {
  const QuietErrors quiet;
  const Owned<X509> parsedOne = parsed(der);
  if (!parsedOne) return std::nullopt;
  SecCertificate certificate;
  certificate.der_.assign(der.begin(), der.end());
  certificate.description_ = summary(X509_get_subject_name(parsedOne.get()));
  certificate.isAuthority_ = X509_check_ca(parsedOne.get()) != 0;
  return certificate;
}

std::vector<SecCertificate> SecCertificate::fromFile(ByteView content) {
  std::vector<SecCertificate> certificates;
  if (!isPemFile(content)) {
    if (auto only = fromDer(content)) certificates.push_back(std::move(*only));
    return certificates;
  }
  const QuietErrors quiet;
  const Owned<BIO> bio = reader(content);
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* bytes = nullptr;
  long size = 0;
  while (PEM_read_bio(bio.get(), &name, &header, &bytes, &size) == 1) {
    const Owned<char> nameOwner(name);
    const Owned<char> headerOwner(header);
    const Owned<unsigned char> bytesOwner(bytes);
    const std::string_view kind(name);
    if (kind != PEM_STRING_X509 && kind != PEM_STRING_X509_OLD) continue;
    auto next = fromDer({bytes, static_cast<std::size_t>(size)});
    if (!next) return {};
    certificates.push_back(std::move(*next));
  }
  const bool isAtEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  return isAtEnd ? certificates : std::vector<SecCertificate>();
}

std::string SecCertificate::pem() const {
  const Owned<BIO> bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio(bio.get(), PEM_STRING_X509, "", der_.data(),
                            static_cast<long>(der_.size())) <= 0) {
    throw std::bad_alloc();
  }
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string SecCertificate::fingerprint() const {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(der_.data(), der_.size(), digest.data());
  return hexText({reinterpret_cast<const char*>(digest.data()), digest.size()});  // NOLINT: bytes
}

std::string CertificateStatus::text() const {
  if (!detail.empty()) return detail;
  return secretStatusText(number);
}

}  // namespace velum
