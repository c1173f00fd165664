#pragma once

#include <functional>

#include "Velum/Platform/Posix/PrivateFolder.h"

namespace velum {

/// Where this user's secrets are.
enum class SecretPlaceKind : std::uint8_t { service, vault };

/// The file in the folder that says so: "service" or "vault" on one line.
inline constexpr const char* secretChoiceFileName = "secret-store";

/// What the folder's record says. Without a record the choice is made and recorded, under the
/// folder's lock, so that processes that ask at once agree: an existing vault goes on being used,
/// else `probe` decides. What it throws is passed on, and nothing is recorded.
///
/// A record of anything else is damaged: errSecDecode, thrown as SecretFailure. Throws SystemError.
SecretPlaceKind chooseSecretPlace(const PrivateFolder& folder,
                                  const std::function<SecretPlaceKind()>& probe);

}  // namespace velum
