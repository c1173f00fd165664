#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "Velum/PropertyList/PropertyList.h"

namespace velum {

/// What is thought of a certificate in one use.
enum class Trust : std::uint8_t { unknown, authority, itself, denied };

/// For each use that NSS tells apart: servers, their clients, mail, code.
inline constexpr std::size_t trustUseCount = 4;
using TrustByUse = std::array<Trust, trustUseCount>;

/// The settings as an array of dictionaries: empty when the certificate is trusted in every use,
/// which means as an authority for one that is, else itself; otherwise one for each use that
/// something is known of.
PropertyList settingsOfTrust(const TrustByUse& trust, bool isAuthority);

/// The reverse. Nothing for what could not be read back, such as a rule for one host.
std::optional<TrustByUse> trustOfSettings(const PropertyList& settings, bool isAuthority);

}  // namespace velum
