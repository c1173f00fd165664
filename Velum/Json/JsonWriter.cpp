#include "Velum/Json/JsonWriter.h"

#include <fmt/format.h>

#include <stdexcept>

#include "Velum/Json/JsonString.h"

namespace velum {

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
