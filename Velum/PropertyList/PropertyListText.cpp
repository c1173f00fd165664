#include "Velum/PropertyList/PropertyListText.h"

#include <charconv>

#include "Velum/PropertyList/PropertyListFormats.h"

namespace velum {
namespace {

/// Every routine returns nothing for malformed text.
class TextReader {
 public:
  explicit TextReader(std::string_view text) : text_(text) {}

  std::optional<PropertyList> all() {
    auto result = value(0);
    skipBlanks();
    return text_.empty() ? std::move(result) : std::nullopt;
  }

 private:
  void skipBlanks() {
    text_.remove_prefix(std::min(text_.find_first_not_of(" \t\r\n"), text_.size()));
  }

  bool skip(char expected) {
    skipBlanks();
    if (!text_.starts_with(expected)) return false;
    text_.remove_prefix(1);
    return true;
  }

  std::optional<PropertyList> value(unsigned depth) {
    if (depth > detail::PropertyListLimits::depth) return std::nullopt;
    if (skip('(')) return array(depth);
    if (skip('{')) return dictionary(depth);
    if (skip('<')) return data();
    auto content = word();
    if (!content) return std::nullopt;
    return PropertyList(std::move(*content));
  }

  std::optional<PropertyList> array(unsigned depth) {
    PropertyList::Array elements;
    while (!skip(')')) {
      auto element = value(depth + 1);
      if (!element) return std::nullopt;
      elements.push_back(std::move(*element));
      if (skip(',')) continue;
      if (!skip(')')) return std::nullopt;
      break;
    }
    return PropertyList(std::move(elements));
  }

  std::optional<PropertyList> dictionary(unsigned depth) {
    PropertyList::Dictionary entries;
    while (!skip('}')) {
      auto key = word();
      if (!key || !skip('=')) return std::nullopt;
      auto entry = value(depth + 1);
      if (!entry || !skip(';')) return std::nullopt;
      entries.insert_or_assign(std::move(*key), std::move(*entry));
    }
    return PropertyList(std::move(entries));
  }

  std::optional<PropertyList> data() {
    PropertyList::Data bytes;
    while (!skip('>')) {
      if (text_.size() < 2) return std::nullopt;
      std::uint8_t byte = 0;
      const auto [end, error] = std::from_chars(text_.data(), text_.data() + 2, byte, 16);
      if (error != std::errc{} || end != text_.data() + 2) return std::nullopt;
      bytes.push_back(byte);
      text_.remove_prefix(2);
    }
    return PropertyList(std::move(bytes));
  }

  std::optional<std::string> word() {
    if (skip('"')) return quoted();
    const auto isPlain = [](char c) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             std::string_view("_$/:.-").find(c) != std::string_view::npos;
    };
    std::size_t length = 0;
    while (length < text_.size() && isPlain(text_[length])) ++length;
    if (length == 0) return std::nullopt;
    std::string result(text_.substr(0, length));
    text_.remove_prefix(length);
    return result;
  }

  std::optional<std::string> quoted() {
    std::string result;
    for (std::size_t at = 0; at < text_.size(); ++at) {
      char c = text_[at];
      if (c == '"') {
        text_.remove_prefix(at + 1);
        return result;
      }
      if (c == '\\') {
        if (++at == text_.size()) break;
        c = text_[at] == 'n' ? '\n' : text_[at] == 'r' ? '\r' : text_[at] == 't' ? '\t' : text_[at];
      }
      result += c;
    }
    return std::nullopt;
  }

  std::string_view text_;  // what is still to be read
};

}  // namespace

PropertyList propertyListFromText(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  const char start = first == std::string_view::npos ? '\0' : text[first];
  if (start == '<') {
    if (auto list = PropertyList::read(text)) return std::move(*list);
  }
  if (start == '(' || start == '{' || start == '<' || start == '"') {
    if (auto list = TextReader(text).all()) return std::move(*list);
  }
  return PropertyList(std::string(text));
}

}  // namespace velum
