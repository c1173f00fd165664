#include "velumctl/RecordPrinter.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Velum/Base/String.h"

namespace velumctl {
namespace {

constexpr std::string_view yellow = "\x1B[33m";
constexpr std::string_view red = "\x1B[31m";
constexpr std::string_view normal = "\x1B[0m";

// Repairing and escaping make a text up to six times longer: done in pieces, it stays small.
constexpr std::size_t pieceSize = 65536;

// How many bytes at the end of `text` begin a sequence that goes on behind it.
std::size_t unfinishedSize(std::string_view text) {
  for (std::size_t size = 1; size <= std::min<std::size_t>(3, text.size()); ++size) {
    const auto byte = static_cast<unsigned char>(text[text.size() - size]);
    if (byte < 0x80) return 0;
    if (byte < 0xC0) continue;
    const std::size_t length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
    return length > size ? size : 0;
  }
  return 0;
}

template <class Use>
void inPieces(std::string_view text, Use use) {
  for (; !text.empty(); text.remove_prefix(std::min(pieceSize, text.size()))) {
    use(text.substr(0, pieceSize));
  }
}

// Without the quotes.
std::string escaped(std::string_view utf8) {
  const std::string quoted = nlohmann::json(utf8).dump();
  return quoted.substr(1, quoted.size() - 2);
}

}  // namespace

std::string Utf8Repair::add(std::string_view piece) {
  held_ += piece;
  const std::size_t rest = unfinishedSize(held_);
  std::string repaired =
      velum::repairedUtf8(std::string_view(held_).substr(0, held_.size() - rest));
  held_.erase(0, held_.size() - rest);
  return repaired;
}

std::string Utf8Repair::finish() {
  std::string repaired = velum::repairedUtf8(held_);
  held_.clear();
  return repaired;
}

void TextPrinter::begin(const RecordHead& head) {
  colour_ = {};
  if (style_ == Style::colour && head.level == velum::LogLevel::warning) colour_ = yellow;
  if (style_ == Style::colour && head.level == velum::LogLevel::error) colour_ = red;
  if (!head.prefix.empty()) text(head.prefix);
}

void TextPrinter::text(std::string_view bytes) {
  if (style_ == Style::plain) {
    output_.write(bytes);
    endsWithNewline_ = bytes.ends_with('\n');
    return;
  }
  inPieces(bytes, [this](std::string_view piece) { printLines(repair_.add(piece)); });
}

void TextPrinter::printLines(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (!line.empty()) {
      if (!colour_.empty() && !isInColour_) output_.write(colour_);
      isInColour_ = !colour_.empty();
      endsWithNewline_ = false;
      output_.write(visibleText(line));
    }
    text.remove_prefix(line.size());
    if (text.empty()) return;
    endLine();
    text.remove_prefix(1);
  }
}

// Pagers want each line to switch its colour on and off.
void TextPrinter::endLine() {
  if (isInColour_) output_.write(normal);
  isInColour_ = false;
  output_.write('\n');
  endsWithNewline_ = true;
}

void TextPrinter::end() {
  printLines(repair_.finish());
  if (!endsWithNewline_) endLine();  // a record that was cut
}

void JsonPrinter::begin(const RecordHead& head) {
  nlohmann::ordered_json object;
  const auto textOrNull = [](std::string_view text) {
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
  };
  const auto numberOrNull = [](const auto& number) {
    return number ? nlohmann::ordered_json(*number) : nlohmann::ordered_json();
  };
  object["date"] = textOrNull(velum::repairedUtf8(head.date));
  object["process"] = numberOrNull(head.process);
  object["thread"] = numberOrNull(head.thread);
  object["subsystem"] = head.subsystem
                            ? nlohmann::ordered_json(velum::repairedUtf8(*head.subsystem))
                            : nlohmann::ordered_json();
  object["level"] = head.level ? textOrNull(description(*head.level)) : nlohmann::ordered_json();
  std::string opening = object.dump();
  opening.back() = ',';
  output_.write(opening);
  output_.write(R"("message":")");
}

void JsonPrinter::text(std::string_view bytes) {
  inPieces(bytes, [this](std::string_view piece) { print(repair_.add(piece)); });
}

void JsonPrinter::print(std::string_view text) {
  if (text.empty()) return;
  if (holdsNewline_) output_.write("\\n");
  holdsNewline_ = text.ends_with('\n');
  if (holdsNewline_) text.remove_suffix(1);
  output_.write(escaped(text));
}

void JsonPrinter::end() {
  print(repair_.finish());
  holdsNewline_ = false;
  output_.write("\"}\n");
}

}  // namespace velumctl
