#include "Velum/Json/JsonWriter.h"

#include <fmt/format.h>

#include <cstddef>
#include <iterator>
#include <stdexcept>

#include "Velum/Base/String.h"
#include "Velum/Json/Json.h"

namespace velum {
namespace {

constexpr unsigned char firstPrintable = 0x20;

constexpr bool isEscaped(char unit) {
  return static_cast<unsigned char>(unit) < firstPrintable || unit == '"' || unit == '\\' ||
         unit == '/';
}

void appendEscaped(std::string& out, char unit) {
  switch (unit) {
    case '/':
      out.append(escapedJsonSlash);
      return;
    case '"':
      out.append("\\\"");
      return;
    case '\\':
      out.append("\\\\");
      return;
    case '\b':
      out.append("\\b");
      return;
    case '\f':
      out.append("\\f");
      return;
    case '\n':
      out.append("\\n");
      return;
    case '\r':
      out.append("\\r");
      return;
    case '\t':
      out.append("\\t");
      return;
    default:
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned char>(unit));
  }
}

}  // namespace

bool appendJsonString(std::string& out, std::string_view text) {
  if (!isValidUtf8(text)) return false;
  out.push_back('"');
  std::size_t start = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (!isEscaped(text[at])) continue;
    out.append(text, start, at - start);
    appendEscaped(out, text[at]);
    start = at + 1;
  }
  out.append(text, start);
  out.push_back('"');
  return true;
}

void JsonObjectWriter::addKey(std::string_view key) {
  if (!isFirst_) out_.push_back(',');
  isFirst_ = false;
  out_.push_back('"');
  out_.append(key);
  out_.append("\":");
}

void JsonObjectWriter::add(std::string_view key, std::string_view text) {
  addKey(key);
  if (!appendJsonString(out_, text)) {
    throw std::invalid_argument(fmt::format("the text of \"{}\" is not UTF-8", key));
  }
}

}  // namespace velum
