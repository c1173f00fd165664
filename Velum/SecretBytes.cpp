#include "Velum/SecretBytes.h"

#include <openssl/crypto.h>

namespace velum {
namespace {

// Threads of a pool may still encrypt while the program ends, and the library would be torn down
// under them. What it holds goes with the process.
[[maybe_unused]] const bool isKeptUntilTheEnd =
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

}  // namespace

void wipe(void* bytes, std::size_t size) noexcept {
  OPENSSL_cleanse(bytes, size);
}

void wipe(std::string& text) noexcept {
  text.resize(text.capacity());  // within the capacity, so nothing moves
  wipe(text.data(), text.size());
  text.clear();
}

}  // namespace velum
