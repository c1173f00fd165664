#include "Velum/Sealing/SealedBox.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>

#include "Velum/Sealing/Cipher.h"
#include "Velum/Sealing/StorageError.h"

namespace velum {
namespace {

using detail::CipherContext;

std::unique_ptr<CipherContext> context(CipherContext::Direction direction, ByteView key) {
  static constinit detail::FetchedCipher cipher("AES-256-GCM");
  if (key.size() != SealedBox::keySize) throw StorageError("incorrectKeySize");
  const EVP_CIPHER* const known = cipher.get();
  if (known == nullptr) throw StorageUnavailable("The cryptographic library has no AES-256-GCM");
  return std::make_unique<CipherContext>(known, direction, key, nullptr);
}

}  // namespace

SealedBox::SealedBox(ByteView key, ByteView along)
    : along_(along),
      encryption_(context(CipherContext::Direction::encrypt, key)),
      decryption_(context(CipherContext::Direction::decrypt, key)),
      random_(std::make_unique<detail::RandomPool>()) {}
SealedBox::~SealedBox() = default;

SecretBytes SealedBox::newKey() {
  SecretBytes key(keySize);
  if (RAND_priv_bytes(key.data(), static_cast<int>(key.size())) != 1) {
    throw StorageError("The system gave no random bytes for a key");
  }
  return key;
}

void SealedBox::seal(ByteView plain, std::span<std::uint8_t> box) {
  if (box.size() != plain.size() + overhead) throw StorageError("incorrectParameterSize");
  const auto nonce = box.first(nonceSize);
  const auto tag = box.last(tagSize);
  std::size_t written = 0;
  int rest = 0;
  if (!random_->take(nonce) || !encryption_->restart(nonce.data()) ||
      !encryption_->authenticate(along_) ||
      !encryption_->update(plain, box.data() + nonceSize, written) ||
      EVP_EncryptFinal_ex(encryption_->get(), tag.data(), &rest) != 1 ||
      EVP_CIPHER_CTX_ctrl(encryption_->get(), EVP_CTRL_AEAD_GET_TAG, tagSize, tag.data()) != 1) {
    wipe(box.data(), box.size());
    throw StorageError("The content could not be sealed");
  }
}

std::string SealedBox::seal(ByteView plain) {
  std::string box(plain.size() + overhead, '\0');
  seal(plain, {reinterpret_cast<std::uint8_t*>(box.data()), box.size()});  // NOLINT: bytes
  return box;
}

void SealedBox::open(ByteView box, std::span<std::uint8_t> plain) {
  if (box.size() < overhead || plain.size() != box.size() - overhead) {
    throw StorageError("incorrectParameterSize");
  }
  std::array<std::uint8_t, tagSize> tag{};
  std::copy_n(box.last(tagSize).begin(), tagSize, tag.begin());
  const auto ciphertext = box.subspan(nonceSize, plain.size());
  std::size_t written = 0;
  int rest = 0;
  if (!decryption_->restart(box.data()) || !decryption_->authenticate(along_)) {
    throw StorageUnavailable("The content could not be opened");
  }
  if (!decryption_->update(ciphertext, plain.data(), written) ||
      EVP_CIPHER_CTX_ctrl(decryption_->get(), EVP_CTRL_AEAD_SET_TAG, tagSize, tag.data()) != 1 ||
      EVP_DecryptFinal_ex(decryption_->get(), tag.data(), &rest) != 1) {
    wipe(plain.data(), plain.size());
    throw StorageError("authenticationFailure");
  }
}

SecretBytes SealedBox::open(ByteView box) {
  if (box.size() < overhead) throw StorageError("incorrectParameterSize");
  SecretBytes plain(box.size() - overhead);
  open(box, plain);
  return plain;
}

}  // namespace velum
