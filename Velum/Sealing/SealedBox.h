#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Velum/Base/ByteView.h"
#include "Velum/Base/SecretBytes.h"

namespace velum {

namespace detail {
class CipherContext;
class RandomPool;
}  // namespace detail

/// AES-256-GCM under one key: seals bytes so that only the key's owner can read them and every
/// change is noticed. A sealed box is a random nonce of 12 bytes, the ciphertext, as long as the
/// plaintext, and a tag of 16 bytes. What is authenticated along stands elsewhere, such as a file's
/// mark: a box opens with the same bytes only. An object is for one thread at a time; key material
/// is wiped with it. Failures throw StorageError; those that tell nothing of the box,
/// StorageUnavailable.
class SealedBox {
 public:
  static constexpr std::size_t keySize = 32;
  static constexpr std::size_t nonceSize = 12;
  static constexpr std::size_t tagSize = 16;
  static constexpr std::size_t overhead = nonceSize + tagSize;

  /// Throws "incorrectKeySize" for a key of another size. `along`, which is authenticated along,
  /// must outlive the object.
  explicit SealedBox(ByteView key, ByteView along = {});
  SealedBox(const SealedBox&) = delete;
  SealedBox& operator=(const SealedBox&) = delete;
  ~SealedBox();

  /// A new random key.
  static SecretBytes newKey();

  /// Writes the box of `plain` into `box`, whose size is that of `plain` and `overhead`. `plain`
  /// may be the very place in `box` where the ciphertext goes, but not overlap it otherwise.
  void seal(ByteView plain, std::span<std::uint8_t> box);
  std::string seal(ByteView plain);

  /// The plaintext. Throws "incorrectParameterSize" for bytes too short to be a box and
  /// "authenticationFailure" for any that this key did not seal; nothing of the content is left
  /// behind then.
  SecretBytes open(ByteView box);
  /// The same into `plain`, whose size is the box's less `overhead`; may be the ciphertext's place.
  void open(ByteView box, std::span<std::uint8_t> plain);

 private:
  const ByteView along_;
  std::unique_ptr<detail::CipherContext> encryption_;
  std::unique_ptr<detail::CipherContext> decryption_;
  std::unique_ptr<detail::RandomPool> random_;
};

}  // namespace velum
