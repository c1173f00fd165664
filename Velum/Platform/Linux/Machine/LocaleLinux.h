#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velum {

/// The BCP 47 tag for a locale's name: "de-AT" for "de_AT.UTF-8@euro", "sr-Latn-RS" for
/// "sr_RS@latin". Nothing for "C", "POSIX" and what names no language.
std::optional<std::string> languageTag(std::string_view locale);

}  // namespace velum
