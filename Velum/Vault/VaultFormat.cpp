#include "Velum/Vault/VaultFormat.h"

#include <algorithm>
#include <array>

#include "Velum/Sealing/SealedBox.h"
#include "Velum/Sealing/StorageError.h"

namespace velum {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::array<std::uint8_t, 8> header{'V', 'e', 'l', 'V', 'l', 't', 0, 1};
constexpr std::size_t lengthSize = 4;

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
  SecretBytes sealed(header.size() + SealedBox::overhead + plaintext.size());
  std::copy(header.begin(), header.end(), sealed.begin());
  SealedBox(key, header).seal(plaintext, std::span(sealed).subspan(header.size()));
  return sealed;
}

std::optional<SecretBytes> openVault(std::span<const std::uint8_t> sealed,
                                     std::span<const std::uint8_t> key) {
  if (sealed.size() < header.size() || !std::equal(header.begin(), header.end(), sealed.begin())) {
    return std::nullopt;
  }
  try {
    return SealedBox(key, header).open(sealed.subspan(header.size()));
  } catch (const StorageUnavailable&) {
    throw;
  } catch (const StorageError&) {
    return std::nullopt;
  }
}

}  // namespace velum
