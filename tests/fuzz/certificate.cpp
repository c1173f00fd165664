// What reads certificates: files from anywhere, and what other programs put into a store.

#include "Velum/Base/String.h"
#include "Velum/Platform/CertificateStore.h"
#include "tests/fuzz/FuzzTarget.h"

namespace velum::fuzz {

std::vector<std::string> craftedInputs() {
  std::string many;
  for (int i = 0; i < 10'000; ++i) many += "-----BEGIN CERTIFICATE-----\n";
  // A sequence that says it is 2 GiB, and sequences that are nested without end.
  return {many, std::string("\x30\x84\x7F\xFF\xFF\xFF", 6), std::string(100'000, '\x30')};
}

}  // namespace velum::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using velum::SecCertificate;
  using velum::fuzz::require;
  const velum::ByteView bytes(data, size);
  auto certificates = SecCertificate::fromFile(bytes);
  if (auto one = SecCertificate::fromDer(bytes)) {
    require(one->der().size() == size);
    certificates.push_back(std::move(*one));
  }
  for (const SecCertificate& certificate : certificates) {
    require(velum::isValidUtf8(certificate.description()));
    require(certificate.description().find('\n') == std::string::npos);
    const std::string pem = certificate.pem();
    const auto again = SecCertificate::fromFile(velum::byteView(pem));
    require(again.size() == 1 && again.front() == certificate);
  }
  return 0;
}
