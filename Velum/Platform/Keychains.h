#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Velum/Platform/SecretStatus.h"

namespace velum {

/// Whose keychains are meant.
enum class SecPreferencesDomain : std::uint8_t { user, system, common, dynamic };

/// One keychain, by what the system calls it.
struct SecKeychain {
  std::string name;
};

struct SecKeychainList {
  SecretStatus status = errSecSuccess;
  std::vector<SecKeychain> keychains;
};

}  // namespace velum
