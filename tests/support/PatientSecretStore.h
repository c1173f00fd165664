#pragma once

#include <memory>

#include "Velum/Platform/Linux/Secrets/SecretStoreLinux.h"
#include "tests/support/Waiting.h"

namespace velum::test {

/// The user's secrets for many users at once: the vault's lock is not fair, and whoever holds it
/// waits for the disk.
inline std::shared_ptr<SecretStore> patientSecretStore() {
  return std::make_shared<SecretStoreLinux>(3 * deadline);
}

}  // namespace velum::test
