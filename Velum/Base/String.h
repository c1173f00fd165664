#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velum {

/// Removes the secrets of HTTP headers from a text that is about to be logged. Every match of the
/// case-insensitive expression "((set-)?cookie|authorization): ([^\n]+)" becomes the header's
/// name and ": stripped"; the match runs to the end of its line. A hand-written scanner, because
/// it runs on every log record: it costs tens of nanoseconds, can't overflow the stack on a long
/// line and does not stop at bytes that are not UTF-8.
std::string strippedHeaders(std::string_view text);

/// The same, appended to `out`; allocates only when `out` has to grow.
void appendStrippedHeaders(std::string& out, std::string_view text);

/// True when `text` is well-formed UTF-8 (shortest forms only, no surrogates).
bool isValidUtf8(std::string_view text) noexcept;

/// `text` with every maximal ill-formed sequence replaced by U+FFFD, so that a path or a tool's
/// output of unknown encoding can be logged and read. Well-formed text comes back unchanged.
std::string repairedUtf8(std::string_view text);

/// Whether two texts differ in the case of ASCII letters at most; independent of the locale.
bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept;

/// `text` without the spaces, tabs and ends of lines at its ends.
std::string_view trimmed(std::string_view text) noexcept;

/// `text` as a name or value in a URL's query: every byte but ASCII letters, digits, '-', '.', '_'
/// and '~' becomes "%XX". Nothing becomes an empty text.
std::string escapedUrlQueryParam(std::optional<std::string_view> text);

/// Two lower-case hexadecimal digits for each byte.
std::string hexText(std::string_view bytes);

}  // namespace velum
