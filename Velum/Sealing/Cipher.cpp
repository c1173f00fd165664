#include "Velum/Sealing/Cipher.h"

#include <openssl/rand.h>

#include <algorithm>
#include <new>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/KeepOpenSsl.h"

namespace velum::detail {

bool RandomPool::refill(std::size_t least) {
  constexpr std::size_t largest = 4096;
  generation_ = forkGeneration();
  left_ = 0;
  bytes_.resize(std::max(least, std::min(bytes_.size() * 4, largest)));
  if (RAND_bytes(bytes_.data(), static_cast<int>(bytes_.size())) != 1) return false;
  left_ = bytes_.size();
  return true;
}

bool RandomPool::take(std::span<std::uint8_t> out) {
  if ((left_ < out.size() || generation_ != forkGeneration()) && !refill(out.size())) return false;
  left_ -= out.size();
  std::copy_n(bytes_.data() + left_, out.size(), out.data());
  return true;
}

CipherContext::CipherContext(const EVP_CIPHER* cipher, Direction direction, ByteView key,
                             const std::uint8_t* iv)
    : context_(EVP_CIPHER_CTX_new()) {
  // The lengths are right by construction, so that nothing but memory can be missing.
  if (!context_ || EVP_CIPHER_get_key_length(cipher) != static_cast<int>(key.size()) ||
      EVP_CipherInit_ex2(context_.get(), cipher, key.data(), iv, static_cast<int>(direction),
                         nullptr) != 1) {
    throw std::bad_alloc();
  }
}

bool CipherContext::restart(const std::uint8_t* iv) noexcept {
  return EVP_CipherInit_ex2(context_.get(), nullptr, nullptr, iv, -1, nullptr) == 1;
}

bool CipherContext::authenticate(ByteView along) noexcept {
  int count = 0;
  return along.empty() || EVP_CipherUpdate(context_.get(), nullptr, &count, along.data(),
                                           static_cast<int>(along.size())) == 1;
}

bool CipherContext::update(ByteView in, std::uint8_t* out, std::size_t& written) noexcept {
  constexpr std::size_t most = std::size_t{1} << 30U;  // the library counts in int
  written = 0;
  do {
    const auto part = in.first(std::min(in.size(), most));
    int count = 0;
    if (EVP_CipherUpdate(context_.get(), out + written, &count, part.data(),
                         static_cast<int>(part.size())) != 1) {
      return false;
    }
    written += static_cast<std::size_t>(count);
    in = in.subspan(part.size());
  } while (!in.empty());
  return true;
}

const EVP_CIPHER* FetchedCipher::get() {
  if (const EVP_CIPHER* const known = cipher_.load(std::memory_order_acquire)) return known;
  EVP_CIPHER* const fresh = EVP_CIPHER_fetch(nullptr, name_, nullptr);
  if (fresh == nullptr) return nullptr;
  const EVP_CIPHER* first = nullptr;
  if (cipher_.compare_exchange_strong(first, fresh, std::memory_order_acq_rel)) return fresh;
  EVP_CIPHER_free(fresh);  // another thread was faster
  return first;
}

}  // namespace velum::detail
