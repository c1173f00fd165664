#pragma once

#include <optional>
#include <string>

#include "Velum/Platform/Keychains.h"

namespace velum {

/// The first keychain of a domain's search list, whether it is for secrets or for certificates.
/// Nothing when the list is empty, or, with a record, when the search failed. Any thread.
std::optional<SecKeychain> firstKeychain(SecPreferencesDomain domain, SecKeychainList list);

/// The domain as messages name it.
std::string domainText(SecPreferencesDomain domain);

}  // namespace velum
