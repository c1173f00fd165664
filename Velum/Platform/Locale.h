#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velum {

/// The languages the user wants, most wanted first, as BCP 47 tags: "en-US", "sr-Latn-RS". Empty
/// when the user has said nothing. Linux: as for translated programs, LANGUAGE and then the first
/// of LC_ALL, LC_MESSAGES and LANG that is set; when that is "C" or "POSIX", LANGUAGE is ignored.
std::vector<std::string> preferredLanguages();

/// The language this program speaks, as a tag; nothing when it has not taken up the user's
/// language. Linux: the locale that the program has set for its messages.
std::optional<std::string> applicationLanguage();

}  // namespace velum
