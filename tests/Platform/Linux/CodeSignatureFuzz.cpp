// What reads a program's signature, and judges who made it: anybody may put anything there.

#include "Velum/Platform/Linux/CodeIdentity/CodeSignature.h"

#include <openssl/pem.h>

#include <array>

#include "Velum/Platform/Linux/CodeIdentity/CodeRefused.h"
#include "tests/fuzz/FuzzTarget.h"

namespace velum::fuzz {
namespace {

constexpr std::string_view team = "R8K2ZP5WQN";
constexpr std::string_view content = "the program\n";

// The authority of the signatures in the corpus. Its key is lost, so that nobody signs by chance.
constexpr std::string_view authority = R"(-----BEGIN CERTIFICATE-----
MIIBWDCB/6ADAgECAgEBMAoGCCqGSM49BAMCMBQxEjAQBgNVBAMMCUF1dGhvcml0
eTAeFw0yNjExMjExNDE5NTlaFw0zNjExMTgxNTE5NTlaMBQxEjAQBgNVBAMMCUF1
dGhvcml0eTBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IABNexFCMZHqr3KCWyelH6
pWFz/YcOq1cCKtdnB1Ajqzs6g+zD4FIjCGrAUEifQlgRPWt7EIZ0V5UxMawCpO8V
mxGjQjBAMA8GA1UdEwEB/wQFMAMBAf8wDgYDVR0PAQH/BAQDAgIEMB0GA1UdDgQW
BBQ8QPBMzBbb0xPHEWwwBiWtHlZ23jAKBggqhkjOPQQDAgNIADBFAiBxAVtO8C44
351s7xwWkb1cVNtYGfQFtXTx4FFyNmKOfwIhAP2keafhFjywbKmXpFrSTUIQzv7p
0anxBMP79AoFX355
-----END CERTIFICATE-----
)";

X509_STORE* roots() {
  static X509_STORE* const store = [] {
    const std::unique_ptr<BIO, int (*)(BIO*)> pem(
        BIO_new_mem_buf(authority.data(), static_cast<int>(authority.size())), BIO_free);
    const std::unique_ptr<X509, void (*)(X509*)> certificate(
        PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr), X509_free);
    X509_STORE* const made = X509_STORE_new();
    require(X509_STORE_add_cert(made, certificate.get()) == 1);
    return made;
  }();
  return store;
}

template <class Check>
bool isPassed(const Check& check) {
  try {
    check();
    return true;
  } catch (const CodeRefused& refusal) {
    require(*refusal.what() != '\0');
    return false;
  }
}

std::string digestOf(std::string_view bytes, const EVP_MD* algorithm) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  require(EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, algorithm, nullptr) == 1);
  return {digest.begin(), digest.begin() + size};
}

void judge(const CodeSignature& signature) {
  const auto isOf = [&](std::string_view bytes) {
    const std::string digest = digestOf(bytes, signature.digestAlgorithm());
    return isPassed([&] { signature.requireContent(byteView(digest)); });
  };
  const bool isTeams = isPassed([&] { signature.requireTeam(team); });
  const bool isTrusted = isPassed([&] { signature.requireTrusted(roots(), {}); });
  // Whoever can say otherwise has found a second content, team or key for what was signed.
  if (isTrusted) require(isOf(content) && !isOf("another program\n"));
  if (isTeams) require(!isPassed([&] { signature.requireTeam("R8K2ZP5WQ"); }));
  if (!isTrusted) require(!isPassed([&] { signature.requireTrusted(roots(), {true}); }));
}

}  // namespace

std::vector<std::string> craftedInputs() {
  // A sequence in a sequence in a sequence, and one that claims far more than there is.
  std::string deep;
  for (int level = 0; level < 100'000; ++level) deep += "\x30\x80";
  return {deep, std::string("\x30\x84\x7F\xFF\xFF\xFF", 6) + std::string(100'000, '\0')};
}

}  // namespace velum::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace velum::fuzz;  // NOLINT(google-build-using-namespace)
  const std::string bytes(data, data + size);
  isPassed([&] { judge(velum::CodeSignature(bytes)); });
  return 0;
}
