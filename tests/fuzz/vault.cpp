// What opens a vault and what reads its table: with the right key, so that inputs get beyond the
// seal, and with the bytes as they are.

#include <algorithm>
#include <array>

#include "Velum/Sealing/SealedBox.h"
#include "Velum/Vault/VaultFormat.h"
#include "tests/fuzz/FuzzTarget.h"

namespace velum::fuzz {

std::vector<std::string> craftedInputs() {
  // Far more items, and a far longer field, than there are bytes.
  return {std::string("\xFF\xFF\xFF\xFF", 4) + std::string(100'000, '\0'),
          std::string("\1\0\0\0\xFF\xFF\xFF\x7F", 8) + std::string(100'000, 'x')};
}

}  // namespace velum::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using velum::fuzz::require;
  const std::span bytes(data, size);
  const std::array<std::uint8_t, velum::SealedBox::keySize> key{'k'};
  // Nobody guesses a tag: whatever opens was sealed.
  require(!velum::openVault(bytes, key));

  velum::SecretBytes sealed = velum::sealVault(bytes, key);
  const auto opened = velum::openVault(sealed, key);
  require(opened && std::equal(opened->begin(), opened->end(), bytes.begin(), bytes.end()));
  sealed[size % sealed.size()] ^= 1U;
  require(!velum::openVault(sealed, key));

  // There is one way to write a table, so what can be read is written the same.
  const auto table = velum::decodeVaultTable(bytes);
  if (!table) return 0;
  const velum::SecretBytes encoded = velum::encodeVaultTable(*table);
  require(std::equal(encoded.begin(), encoded.end(), bytes.begin(), bytes.end()));
  return 0;
}
