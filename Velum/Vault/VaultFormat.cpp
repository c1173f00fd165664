#include "Velum/Vault/VaultFormat.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

namespace velum {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::array<std::uint8_t, 8> header{'V', 'e', 'l', 'V', 'l', 't', 0, 1};
constexpr std::size_t nonceSize = 12;
constexpr std::size_t tagSize = 16;
constexpr std::size_t lengthSize = 4;

// ---- The table ----

void putNumber(SecretBytes& to, std::size_t value) {
  for (std::size_t byte = 0; byte < lengthSize; ++byte, value >>= 8U) {
    to.push_back(static_cast<std::uint8_t>(value & 0xFFU));
  }
}

template <class Field>
void putField(SecretBytes& to, const Field& field) {
  putNumber(to, field.size());
  to.insert(to.end(), field.begin(), field.end());
}

/// Takes fields off the front of the bytes. Once something did not fit, nothing more is taken.
class FieldReader {
 public:
  explicit FieldReader(Bytes bytes) noexcept : rest_(bytes) {}

  std::optional<std::size_t> number() {
    const auto bytes = take(lengthSize);
    if (!bytes) return std::nullopt;
    std::size_t value = 0;
    for (std::size_t byte = lengthSize; byte-- > 0;) value = value << 8U | (*bytes)[byte];
    return value;
  }

  template <class Field>
  bool field(Field& to) {
    const auto size = number();
    const auto bytes = size ? take(*size) : std::nullopt;
    if (!bytes) return false;
    to.assign(bytes->begin(), bytes->end());
    return true;
  }

  bool isAtEnd() const noexcept { return rest_.empty(); }

 private:
  std::optional<Bytes> take(std::size_t size) {
    if (size > rest_.size()) return std::nullopt;
    const Bytes taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }

  Bytes rest_;
};

// ---- The seal ----

struct CipherDeleter {
  void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, CipherDeleter>;

/// For steps that fail only where the library is out of memory or broken.
void require(bool isDone) {
  if (!isDone) throw SecretFailure(errSecNotAvailable);
}

enum class Direction : std::uint8_t { open, seal };

/// A cipher that has been given key, nonce and what is authenticated along.
Cipher makeCipher(Direction direction, Bytes key, Bytes nonce) {
  require(key.size() == vaultKeySize);
  Cipher cipher(EVP_CIPHER_CTX_new());
  require(cipher != nullptr &&
          EVP_CipherInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce.data(),
                            direction == Direction::seal ? 1 : 0) == 1);
  int length = 0;
  require(EVP_CipherUpdate(cipher.get(), nullptr, &length, header.data(),
                           static_cast<int>(header.size())) == 1);
  return cipher;
}

bool transform(EVP_CIPHER_CTX* cipher, Bytes from, std::uint8_t* to) {
  int length = 0;
  return from.empty() ||
         EVP_CipherUpdate(cipher, to, &length, from.data(), static_cast<int>(from.size())) == 1;
}

}  // namespace

SecretBytes encodeVaultTable(const VaultTable& table) {
  std::size_t size = lengthSize;
  for (const auto& [name, value] : table) {
    size += 4 * lengthSize + name.service.size() + name.account.size() + name.accessGroup.size() +
            value.size();
  }
  SecretBytes bytes;
  bytes.reserve(size);
  putNumber(bytes, table.size());
  for (const auto& [name, value] : table) {
    putField(bytes, name.service);
    putField(bytes, name.account);
    putField(bytes, name.accessGroup);
    putField(bytes, value);
  }
  return bytes;
}

std::optional<VaultTable> decodeVaultTable(std::span<const std::uint8_t> bytes) {
  FieldReader reader(bytes);
  const auto count = reader.number();
  if (!count) return std::nullopt;
  std::optional<VaultTable> table(std::in_place);
  for (std::size_t item = 0; item < *count; ++item) {
    SecretName name;
    SecretBytes value;
    const bool isWhole = reader.field(name.service) && reader.field(name.account) &&
                         reader.field(name.accessGroup) && reader.field(value);
    const bool isNext = table->empty() || table->rbegin()->first < name;
    if (!isWhole || !isNext) return std::nullopt;
    table->emplace_hint(table->end(), std::move(name), std::move(value));
  }
  if (!reader.isAtEnd()) return std::nullopt;
  return table;
}

SecretBytes sealVault(std::span<const std::uint8_t> plaintext, std::span<const std::uint8_t> key) {
  SecretBytes sealed(header.size() + nonceSize + plaintext.size() + tagSize);
  std::uint8_t* next = std::copy(header.begin(), header.end(), sealed.data());
  std::uint8_t* const nonce = next;
  require(RAND_bytes(nonce, nonceSize) == 1);
  next += nonceSize;
  const Cipher cipher = makeCipher(Direction::seal, key, {nonce, nonceSize});
  require(transform(cipher.get(), plaintext, next));
  next += plaintext.size();
  int length = 0;
  require(EVP_CipherFinal_ex(cipher.get(), next, &length) == 1);
  require(EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_AEAD_GET_TAG, tagSize, next) == 1);
  return sealed;
}

std::optional<SecretBytes> openVault(std::span<const std::uint8_t> sealed,
                                     std::span<const std::uint8_t> key) {
  if (sealed.size() < header.size() + nonceSize + tagSize ||
      !std::equal(header.begin(), header.end(), sealed.begin())) {
    return std::nullopt;
  }
  sealed = sealed.subspan(header.size());
  const Cipher cipher = makeCipher(Direction::open, key, sealed.first(nonceSize));
  const Bytes ciphertext = sealed.subspan(nonceSize, sealed.size() - nonceSize - tagSize);
  std::array<std::uint8_t, tagSize> tag{};
  std::copy(sealed.end() - tagSize, sealed.end(), tag.begin());
  SecretBytes plaintext(ciphertext.size());
  std::array<std::uint8_t, tagSize> rest{};
  int length = 0;
  const bool isAuthentic =
      transform(cipher.get(), ciphertext, plaintext.data()) &&
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_AEAD_SET_TAG, tagSize, tag.data()) == 1 &&
      EVP_CipherFinal_ex(cipher.get(), rest.data(), &length) == 1;
  if (!isAuthentic) return std::nullopt;
  return plaintext;
}

}  // namespace velum
