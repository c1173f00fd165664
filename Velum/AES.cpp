#include "Velum/AES.h"

#include <algorithm>
#include <array>

#include "Velum/Sealing/Cipher.h"

namespace velum {
namespace {

using detail::CipherContext;

const EVP_CIPHER* fetched(std::size_t keySize) {
  static constinit detail::FetchedCipher aes128("AES-128-CBC");
  static constinit detail::FetchedCipher aes192("AES-192-CBC");
  static constinit detail::FetchedCipher aes256("AES-256-CBC");
  switch (keySize) {
    case 16:
      return aes128.get();
    case 24:
      return aes192.get();
    case 32:
      return aes256.get();
    default:
      throw AESError("Invalid key length", static_cast<std::int64_t>(keySize));
  }
}

const EVP_CIPHER* cipher(std::size_t keySize) {
  const EVP_CIPHER* const known = fetched(keySize);
  if (known == nullptr) throw AESError("Cipher not available", AESError::memoryFailure);
  return known;
}

constexpr std::array<std::uint8_t, AES::blockSize> noVector{};

std::unique_ptr<CipherContext> encryption(ByteView key) {
  auto context = std::make_unique<CipherContext>(
      cipher(key.size()), CipherContext::Direction::encrypt, key, noVector.data());
  EVP_CIPHER_CTX_set_padding(context->get(), 0);  // done below
  return context;
}

std::unique_ptr<CipherContext> decryption(ByteView key) {
  return std::make_unique<CipherContext>(cipher(key.size()), CipherContext::Direction::decrypt, key,
                                         nullptr);
}

// A random block goes through the cipher like the data after it. What it becomes is as random, and
// being the block before the data it is their initialisation vector; so the cipher need not be set
// up for every message, which would take as long as 64 bytes of data.
void seal(CipherContext& context, detail::RandomPool& random, ByteView data,
          std::span<std::uint8_t> blob) {
  if (blob.size() != AES::encryptedSize(data.size())) {
    throw AESError("Encryption failed", AESError::parameterError);
  }
  const auto vector = blob.first(AES::blockSize);
  if (!random.take(vector)) throw AESError("IV generation failed", -1);

  // Short data are copied (if they are not there), so that one call takes all there is.
  constexpr std::size_t longestCopy = 4096;
  const std::size_t direct =
      data.size() <= longestCopy ? 0 : data.size() / AES::blockSize * AES::blockSize;
  const auto copied = data.subspan(direct);
  const auto tail = blob.subspan(vector.size() + direct);
  const auto padding = tail.begin() + static_cast<std::ptrdiff_t>(copied.size());
  if (copied.data() != tail.data()) std::copy(copied.begin(), copied.end(), tail.begin());
  std::fill(padding, tail.end(), static_cast<std::uint8_t>(tail.end() - padding));

  std::size_t written = 0;
  const bool isDone = direct == 0 ? context.update(blob, blob.data(), written)
                                  : context.update(vector, vector.data(), written) &&
                                        context.update(data.first(direct),
                                                       vector.data() + vector.size(), written) &&
                                        context.update(tail, tail.data(), written);
  if (!isDone) {
    wipe(blob.data(), blob.size());
    throw AESError("Encryption failed", AESError::memoryFailure);
  }
}

void checkBlob(std::size_t size) {
  std::int64_t fault = 0;
  if (size < AES::blockSize) {
    fault = AESError::parameterError;
  } else if (size % AES::blockSize != 0) {
    fault = AESError::alignmentError;
  } else if (size == AES::blockSize) {
    fault = AESError::decodeError;  // not even padding
  }
  if (fault != 0) throw AESError("Decryption failed", fault);
}

std::size_t open(CipherContext& context, ByteView blob, std::span<std::uint8_t> plain) {
  checkBlob(blob.size());
  const auto ciphertext = blob.subspan(AES::blockSize);
  if (plain.size() < ciphertext.size()) {
    throw AESError("Decryption failed", AESError::parameterError);
  }
  std::size_t size = 0;
  if (!context.restart(blob.data()) || !context.update(ciphertext, plain.data(), size)) {
    wipe(plain.data(), plain.size());
    throw AESError("Decryption failed", AESError::memoryFailure);
  }
  int last = 0;
  if (EVP_DecryptFinal_ex(context.get(), plain.data() + size, &last) != 1) {
    wipe(plain.data(), plain.size());
    throw AESError("Decryption failed", AESError::decodeError);
  }
  return size + static_cast<std::size_t>(last);
}

}  // namespace

AES::AES(ByteView key)
    : encryption_(encryption(key)),
      decryption_(decryption(key)),
      random_(std::make_unique<detail::RandomPool>()) {}
AES::AES(AES&&) noexcept = default;
AES& AES::operator=(AES&&) noexcept = default;
AES::~AES() = default;

void AES::encrypt(ByteView data, std::span<std::uint8_t> blob) {
  seal(*encryption_, *random_, data, blob);
}

std::size_t AES::decrypt(ByteView blob, std::span<std::uint8_t> plain) {
  return open(*decryption_, blob, plain);
}

std::vector<std::uint8_t> AES::encrypted(ByteView data, ByteView key) {
  const auto context = encryption(key);
  detail::RandomPool random;
  std::vector<std::uint8_t> blob(encryptedSize(data.size()));
  seal(*context, random, data, blob);
  return blob;
}

SecretBytes AES::decrypted(ByteView blob, ByteView key) {
  const auto context = decryption(key);
  checkBlob(blob.size());
  SecretBytes plain(blob.size() - blockSize);
  plain.resize(open(*context, blob, plain));
  return plain;
}

}  // namespace velum
