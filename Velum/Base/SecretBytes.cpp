#include "Velum/Base/SecretBytes.h"

#include "Velum/Base/KeepOpenSsl.h"

namespace velum {

void wipe(void* bytes, std::size_t size) noexcept {
  OPENSSL_cleanse(bytes, size);
}

void wipe(std::string& text) noexcept {
  text.resize(text.capacity());  // within the capacity, so nothing moves
  wipe(text.data(), text.size());
  text.clear();
}

}  // namespace velum
