#pragma once

#include <openssl/evp.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "Velum/Base/ByteView.h"
#include "Velum/Base/SecretBytes.h"

namespace velum::detail {

/// Random bytes for nonces and vectors, in small pieces for a tenth of the time that the system's
/// generator takes for each; not for keys. No byte is handed out twice: a forked child draws its
/// own. One thread at a time.
class RandomPool {
 public:
  RandomPool() = default;
  RandomPool(const RandomPool&) = delete;
  RandomPool& operator=(const RandomPool&) = delete;
  ~RandomPool() = default;

  /// Fills `out`; false when there is no randomness.
  bool take(std::span<std::uint8_t> out);

 private:
  bool refill(std::size_t least);

  SecretBytes bytes_;  // the more the longer the pool is in use
  std::size_t left_ = 0;
  unsigned generation_ = 0;  // of the process that drew them
};

/// A cipher under one key, expanded once. The library wipes its state when it goes.
class CipherContext {
 public:
  enum class Direction : int { decrypt = 0, encrypt = 1 };

  /// Throws std::bad_alloc. `iv` may be null until the first `restart`.
  CipherContext(const EVP_CIPHER* cipher, Direction direction, ByteView key,
                const std::uint8_t* iv);

  bool restart(const std::uint8_t* iv) noexcept;
  /// Has `along` count for the tag, before anything is transformed. False on failure.
  bool authenticate(ByteView along) noexcept;
  /// Transforms `in`, of any length, into `out`, which may be the same place, and returns the bytes
  /// that came out; nothing on failure.
  bool update(ByteView in, std::uint8_t* out, std::size_t& written) noexcept;

  EVP_CIPHER_CTX* get() const noexcept { return context_.get(); }

 private:
  struct Free {
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
  };
  std::unique_ptr<EVP_CIPHER_CTX, Free> context_;
};

/// The cipher of a name, looked up once and never freed. A static variable needs no time to make,
/// unlike the look-up, during which another thread may fork. Any thread.
class FetchedCipher {
 public:
  /// `name` must live as long.
  constexpr explicit FetchedCipher(const char* name) noexcept : name_(name) {}

  /// Null when the library has none, or no memory for it.
  const EVP_CIPHER* get();

 private:
  const char* name_;
  std::atomic<const EVP_CIPHER*> cipher_{nullptr};
};

}  // namespace velum::detail
