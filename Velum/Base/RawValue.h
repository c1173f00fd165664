#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace velum {

/// The texts that stand for an enumeration's cases in files and messages. Specialised for each
/// such enumeration with `static constexpr std::array texts`, in the order of the cases, which
/// count from 0.
template <class Enumeration>
struct RawValues;

/// The text of a case.
template <class Enumeration>
constexpr std::string_view rawValue(Enumeration value) {
  return RawValues<Enumeration>::texts.at(static_cast<std::size_t>(value));
}

/// The case with exactly that text; nothing for any other text.
template <class Enumeration>
constexpr std::optional<Enumeration> fromRawValue(std::string_view text) {
  const auto& texts = RawValues<Enumeration>::texts;
  const auto* const found = std::find(texts.begin(), texts.end(), text);
  if (found == texts.end()) return std::nullopt;
  return static_cast<Enumeration>(found - texts.begin());
}

}  // namespace velum
