#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>

#include "Velum/Vault/SecretPlace.h"

namespace velum {

/// What a vault holds: values by name.
using VaultTable = std::map<SecretName, SecretBytes>;

/// The table as bytes: the number of items, then each item's service, account, access group and
/// value in the order of the names. Numbers are 32 bits, little-endian; each field is preceded by
/// its length.
SecretBytes encodeVaultTable(const VaultTable& table);

/// Nothing for anything but what the above returns: lengths that don't fit, bytes left over, names
/// out of order or twice. Allocates no more than a small multiple of the bytes given.
std::optional<VaultTable> decodeVaultTable(std::span<const std::uint8_t> bytes);

/// The bytes of a vault file: eight bytes that mark it, the last one its version, a random nonce of
/// 12 bytes, the ciphertext of AES-256-GCM, and its tag of 16 bytes. The mark is authenticated
/// along. `key` has `SealedBox::keySize` bytes. Throws StorageError, as SealedBox does.
SecretBytes sealVault(std::span<const std::uint8_t> plaintext, std::span<const std::uint8_t> key);

/// The plaintext; nothing when anything but `sealVault` with this key made the bytes. Throws
/// StorageUnavailable.
std::optional<SecretBytes> openVault(std::span<const std::uint8_t> sealed,
                                     std::span<const std::uint8_t> key);

}  // namespace velum
