#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/PropertyList/PropertyList.h"

namespace velum {

// A stored default as another type than its own. Settings are written by hand and by arguments,
// where everything is text, so readers take what can only mean one thing.

/// Numbers: not zero. Text, after blanks, a sign and zeros: begins with one of YyTt1-9, so "YES",
/// "true" and "01" are true. Everything else is false.
bool boolFrom(const PropertyList& value);

/// Numbers without their fraction, flags as 1 and 0, text as far as it begins with a decimal
/// number. What is out of range gives the nearest end of it; everything else, and what is no
/// number, 0.
std::int64_t integerFrom(const PropertyList& value);

/// The same with fractions and exponents.
double doubleFrom(const PropertyList& value);

/// Text, and numbers as the shortest text that reads back equal; flags as "1" and "0". Nothing for
/// everything else.
std::optional<std::string> stringFrom(const PropertyList& value);

/// True for a text with a URL's scheme: "https:", "file:".
bool isUrl(std::string_view text) noexcept;

}  // namespace velum
