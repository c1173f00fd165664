#include "Velum/Platform/Curl/CertificateDemand.h"

#include <openssl/ssl.h>

#include "Velum/Base/LazyValue.h"

namespace velum {
namespace {

using Flag = std::shared_ptr<bool>;

// Where a connection keeps its flag; -1 without memory for it.
int flagIndex() {
  static constinit LazyStatic<int> index;
  return index.get([] {
    return SSL_CTX_get_ex_new_index(
        0, nullptr, nullptr, nullptr, +[](void*, void* flag, CRYPTO_EX_DATA*, int, long, void*) {
          delete static_cast<Flag*>(flag);  // NOLINT(*-owning-memory): the context owns it
        });
  });
}

int noteDemand(SSL* connection, X509** /*certificate*/, EVP_PKEY** /*key*/) {
  const void* const flag = SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), flagIndex());
  if (flag != nullptr) **static_cast<const Flag*>(flag) = true;
  return 0;  // no certificate
}

CURLcode prepare(CURL* /*transfer*/, void* context, void* flag) {
  auto* const connections = static_cast<SSL_CTX*>(context);
  auto copy = std::make_unique<Flag>(*static_cast<const Flag*>(flag));
  // Without it, the error of such a server is told less well.
  if (SSL_CTX_set_ex_data(connections, flagIndex(), copy.get()) != 1) return CURLE_OK;
  static_cast<void>(copy.release());
  SSL_CTX_set_client_cert_cb(connections, noteDemand);
  return CURLE_OK;
}

}  // namespace

void CertificateDemand::noticeIn(CURL* transfer) {
  curl_easy_setopt(transfer, CURLOPT_SSL_CTX_DATA, &isMade_);
  curl_easy_setopt(transfer, CURLOPT_SSL_CTX_FUNCTION, prepare);
}

}  // namespace velum
