#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>

namespace velum {

/// A number of 32 or 64 bits (FNV-1a) for a text, on which all processes and versions agree,
/// whatever their standard library. Two texts may have the same one, and anybody can find such.
template <class Number>
requires std::same_as<Number, std::uint32_t> || std::same_as<Number, std::uint64_t>
constexpr Number stableHash(std::string_view text) noexcept {
  constexpr bool isLong = sizeof(Number) == sizeof(std::uint64_t);
  constexpr auto prime = static_cast<Number>(isLong ? 0x100000001b3U : 0x1000193U);
  auto hash = static_cast<Number>(isLong ? 0xcbf29ce484222325U : 0x811c9dc5U);
  for (const char byte : text) hash = (hash ^ static_cast<unsigned char>(byte)) * prime;
  return hash;
}

}  // namespace velum
