#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "Velum/Base/ByteView.h"
#include "Velum/Base/SecretBytes.h"

namespace velum {

/// A refused key or a failed operation. `what()` is one of "Invalid key length", "IV generation
/// failed", "Encryption failed" and "Decryption failed"; the detail of the first is the length in
/// bytes, of the second the random source's status, of the others one of the numbers below.
class AESError : public std::runtime_error {
 public:
  AESError(const std::string& message, std::int64_t detail)
      : std::runtime_error(message), detail_(detail) {}

  std::int64_t detail() const noexcept { return detail_; }

  static constexpr std::int64_t parameterError = -4300;  // no room for the parts of a blob
  static constexpr std::int64_t memoryFailure = -4302;
  static constexpr std::int64_t alignmentError = -4303;  // not a whole number of blocks
  static constexpr std::int64_t decodeError = -4304;     // the padding is wrong

 private:
  std::int64_t detail_;
};

namespace detail {
class CipherContext;
class RandomPool;
}  // namespace detail

/// AES in CBC mode with PKCS#7 padding under one key of 16, 24 or 32 bytes, taken as it is. A blob
/// is a random initialisation vector of 16 bytes and the ciphertext, a whole number of blocks and
/// at least one. Nothing tells a damaged blob from a right one but its padding: what must not be
/// tampered with belongs into a SealedBox.
///
/// The object expands its key once, for many operations; the static functions do for a single one.
/// An object is for one thread at a time. Key material is wiped with it.
class AES {
 public:
  static constexpr std::size_t blockSize = 16;

  /// Throws AESError for a key of another length, and where the system has no such cipher.
  explicit AES(ByteView key);
  AES(AES&&) noexcept;
  AES& operator=(AES&&) noexcept;
  AES(const AES&) = delete;
  AES& operator=(const AES&) = delete;
  ~AES();

  /// The size of the blob of `size` bytes.
  static constexpr std::size_t encryptedSize(std::size_t size) noexcept {
    return blockSize + (size / blockSize + 1) * blockSize;
  }
  /// Writes the blob of `data` into `blob`, which has exactly that size. `data` may be the very
  /// place in `blob` where the ciphertext goes, but not overlap it otherwise.
  void encrypt(ByteView data, std::span<std::uint8_t> blob);
  /// Writes the plaintext into `plain`, which has room for the blob's size less 16 and does not
  /// overlap it, and returns its size. What was written before a failure is wiped.
  std::size_t decrypt(ByteView blob, std::span<std::uint8_t> plain);

  static std::vector<std::uint8_t> encrypted(ByteView data, ByteView key);
  static SecretBytes decrypted(ByteView blob, ByteView key);

 private:
  std::unique_ptr<detail::CipherContext> encryption_;
  std::unique_ptr<detail::CipherContext> decryption_;
  std::unique_ptr<detail::RandomPool> random_;
};

}  // namespace velum
