#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velum {

/// The languages the user wants, most wanted first, as BCP 47 tags: "en-US", "sr-Latn-RS". Empty
/// when the user has said nothing.
std::vector<std::string> preferredLanguages();

/// The language this program speaks, as a tag; nothing when it has not taken up the user's
/// language.
std::optional<std::string> applicationLanguage();

}  // namespace velum
