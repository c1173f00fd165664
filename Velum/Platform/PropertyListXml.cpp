#include <plist/plist.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <clocale>
#include <memory>
#include <vector>

#include "Velum/Platform/PropertyListFormats.h"
#include "Velum/String.h"

namespace velum::detail {
namespace {

using Limits = PropertyListLimits;

constexpr std::string_view blanks = " \t\r\n";

bool isInteger(std::string_view text) {
  const bool isNegative = text.starts_with('-');
  if (isNegative || text.starts_with('+')) text.remove_prefix(1);
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  std::uint64_t magnitude = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), magnitude, isHex ? 16 : 10);
  constexpr auto mostNegative = std::uint64_t{1} << 63U;
  return error == std::errc{} && end == text.data() + text.size() &&
         (!isNegative || magnitude <= mostNegative);
}

bool isReal(std::string_view text) {
  if (text.starts_with('+')) text.remove_prefix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error != std::errc::invalid_argument && end == text.data() + text.size();
}

bool isDate(std::string_view text) {
  constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:ddZ";
  return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(),
                    [](char c, char p) { return p == 'd' ? c >= '0' && c <= '9' : c == p; });
}

bool isBase64(std::string_view text) {
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
  std::size_t digits = 0;
  for (const char c : text) {
    if (alphabet.find(c) != std::string_view::npos) {
      ++digits;
    } else if (blanks.find(c) == std::string_view::npos) {
      return false;
    }
  }
  return digits % 4 == 0;
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Decides before the parser sees a document whether it may: no entities, bounded depth and number
/// of elements, every tag one of the format's and closed in order, every number and date what it
/// claims (the parser makes 0 of others). Stricter than the parser in everything it looks at, so
/// that the two can never disagree on how deep a document is.
class XmlCheck {
 public:
  explicit XmlCheck(std::string_view text) : text_(text) {}

  bool passes() {
    while (nextMarkup()) {
      if (!(isComment() ? skipPast("-->") : isProlog() ? skipProlog() : tag())) return false;
    }
    return sawRoot_ && open_.empty() && trimmed(text_).empty();
  }

 private:
  /// Drops the text before the next "<".
  bool nextMarkup() {
    const auto markup = text_.find('<');
    if (markup == std::string_view::npos) return false;
    text_.remove_prefix(markup);
    return true;
  }

  bool isComment() const { return text_.starts_with("<!--"); }
  bool isProlog() const { return text_.starts_with("<?") || text_.starts_with("<!"); }

  bool skipPast(std::string_view end) {
    constexpr std::size_t opening = 4;  // "<!-->" is no whole comment
    const auto found = text_.find(end, opening);
    if (found == std::string_view::npos) return false;
    text_.remove_prefix(found + end.size());
    return true;
  }

  /// The XML declaration and the document type, before the root only. An internal subset is where
  /// entities are declared; no property list needs one.
  bool skipProlog() {
    if (sawRoot_) return false;
    const auto end = text_.find('>');
    if (end == std::string_view::npos) return false;
    const auto markup = text_.substr(0, end);
    if (!markup.starts_with("<?xml") && !markup.starts_with("<!DOCTYPE")) return false;
    if (markup.find('[') != std::string_view::npos) return false;
    text_.remove_prefix(end + 1);
    return true;
  }

  bool tag() {
    const auto end = text_.find('>');
    if (end == std::string_view::npos) return false;
    auto markup = text_.substr(1, end - 1);
    text_.remove_prefix(end + 1);
    const bool closes = markup.starts_with('/');
    if (closes) markup.remove_prefix(1);
    const bool isEmpty = !closes && markup.ends_with('/');
    if (isEmpty) markup.remove_suffix(1);
    const auto name = markup.substr(0, markup.find_first_of(blanks));
    if (name != "plist" && trimmed(markup) != name) return false;  // only the root has attributes

    if (closes) return close(name);
    return element(name, isEmpty);
  }

  bool close(std::string_view name) {
    if (open_.empty() || open_.back() != name) return false;
    open_.pop_back();
    return true;
  }

  bool element(std::string_view name, bool isEmpty) {
    if (open_.empty() && sawRoot_) return false;
    if (name == "plist" && sawRoot_) return false;
    sawRoot_ = true;
    // The parser takes the first of several values; which one was meant is not ours to guess.
    if (open_.size() == 1 && open_.front() == "plist" && ++rootValues_ > 1) return false;
    if (++elements_ > Limits::objects) return false;
    if (name == "plist" || name == "dict" || name == "array") {
      if (open_.size() > Limits::depth) return false;
      if (!isEmpty) open_.push_back(name);
      return true;
    }
    constexpr std::array<std::string_view, 8> leaves{"key",  "string", "integer", "real",
                                                     "true", "false",  "date",    "data"};
    if (std::find(leaves.begin(), leaves.end(), name) == leaves.end()) return false;
    return isEmpty ? leafIs(name, {}) : leaf(name);
  }

  /// The content of a leaf and its closing tag.
  bool leaf(std::string_view name) {
    std::string content;
    for (;;) {
      const auto markup = text_.find('<');
      if (markup == std::string_view::npos) return false;
      content += text_.substr(0, markup);
      text_.remove_prefix(markup);
      if (text_.starts_with("<![CDATA[")) {
        if (!skipPast("]]>")) return false;
      } else if (isComment()) {
        if (!skipPast("-->")) return false;
      } else {
        break;
      }
    }
    const auto end = text_.find('>');
    if (end == std::string_view::npos || !text_.starts_with("</")) return false;
    const bool matches = trimmed(text_.substr(2, end - 2)) == name;
    text_.remove_prefix(end + 1);
    return matches && leafIs(name, content);
  }

  static bool leafIs(std::string_view name, std::string_view content) {
    if (name == "integer") return isInteger(trimmed(content));
    if (name == "real") return isReal(trimmed(content));
    if (name == "date") return isDate(trimmed(content));
    if (name == "data") return isBase64(content);
    return true;
  }

  std::string_view text_;               // what is still to be looked at
  std::vector<std::string_view> open_;  // the containers around it
  std::size_t elements_ = 0;
  unsigned rootValues_ = 0;  // directly below the root element
  bool sawRoot_ = false;
};

/// Gives the calling thread the C locale: the parser reads numbers with the locale's decimal point.
class CLocale {
 public:
  CLocale() : previous_(::uselocale(instance())) {}
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;
  ~CLocale() { ::uselocale(previous_); }

 private:
  static locale_t instance() {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
  }

  locale_t previous_;
};

}  // namespace

std::optional<std::string> binaryFromXmlPropertyList(std::string_view text) {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(byteOrderMark)) text.remove_prefix(byteOrderMark.size());
  const auto start = text.find_first_not_of(blanks);
  if (start == std::string_view::npos || text[start] != '<') return std::nullopt;
  text.remove_prefix(start);
  if (text.find('\0') != std::string_view::npos || !isValidUtf8(text)) return std::nullopt;
  if (!XmlCheck(text).passes()) return std::nullopt;

  const CLocale locale;
  plist_t parsed = nullptr;
  ::plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &parsed);
  if (parsed == nullptr) return std::nullopt;
  const std::unique_ptr<void, decltype(&::plist_free)> document(parsed, &::plist_free);

  // The binary form keeps what the parser's accessors lose: unsigned numbers above the signed
  // range, and dates outside 1932 to 2069.
  char* bytes = nullptr;
  std::uint32_t size = 0;
  ::plist_to_bin(document.get(), &bytes, &size);
  const std::unique_ptr<char, decltype(&::plist_to_bin_free)> owner(bytes, &::plist_to_bin_free);
  if (bytes == nullptr) return std::nullopt;
  return std::string(bytes, size);
}

}  // namespace velum::detail
