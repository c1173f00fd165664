#pragma once

#include <functional>

#include "Velum/Files/PrivateFolder.h"
#include "Velum/Vault/SecretPlace.h"

namespace velum {

/// Where this user's secrets are.
enum class SecretPlaceKind : std::uint8_t { service, vault };

/// The file in the folder that says so: "service" or "vault" on one line.
inline constexpr const char* secretChoiceFileName = "secret-store";

struct SecretChoice {
  SecretPlaceKind kind;
  bool isNew;  ///< Made and recorded just now.
};

/// The file in the folder that says that the service has been given secrets of this user's. A
/// service without a keyring has lost them then, or has not got at them yet.
inline constexpr const char* serviceMarkFileName = "secret-service-used";

/// What the folder's record says. Without a record the choice is made and recorded, so that
/// processes that ask at once agree: an existing vault goes on being used, then a marked service,
/// else `probe` decides, which is called without a lock. What it throws is passed on, and nothing
/// is recorded.
///
/// Throws SecretFailure, for a record of anything else (errSecDecode) and when the folder's lock
/// can't be had in time (errSecTimedOut), and SystemError.
SecretChoice chooseSecretPlace(const PrivateFolder& folder, const SecretCall& call,
                               const std::function<SecretPlaceKind()>& probe);

/// Makes the mark, before the first secret is stored, if it is not there. Throws as the above.
void markService(const PrivateFolder& folder, const SecretCall& call);

}  // namespace velum
