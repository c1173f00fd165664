#include "velumctl/LogRecords.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string>

#include "Velum/Logger/LogRecord.h"

namespace velumctl {
namespace {

using velum::LogLevel;

constexpr std::size_t dateSize = velum::recordStartSize + 3;  // with milliseconds, no separator

// "12345:1a03     ", the numbers of the process and, hexadecimal, of the thread.
void readIdentifiers(std::string_view text, RecordHead& head) {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  std::int64_t process = 0;
  const char* const end = text.data() + text.size();
  const auto [colon, error] = std::from_chars(text.data(), end, process);
  if (error != std::errc() || colon == end || *colon != ':') return;
  std::uint64_t thread = 0;
  if (std::from_chars(colon + 1, end, thread, 16).ec != std::errc()) return;
  head.process = process;
  head.thread = thread;
}

std::optional<LogLevel> levelOf(std::string_view message) {
  constexpr std::array levels{LogLevel::verbose, LogLevel::debug, LogLevel::info, LogLevel::warning,
                              LogLevel::error};
  if (!message.substr(1).starts_with(": ")) return std::nullopt;
  const auto* const found = std::ranges::find(levels, message.front(), velum::letter);
  return found == levels.end() ? std::nullopt : std::optional(*found);
}

// Of the record at the start of `bytes`.
RecordHead parsedHead(std::string_view bytes) {
  constexpr std::size_t levelSize = 3;
  RecordHead head;
  head.subsystem = velum::recordSubsystem(bytes);
  bytes.remove_prefix(1);
  if (!head.subsystem) {  // somebody else's prefix: the date is all that is known
    head.date = head.prefix = bytes.substr(0, velum::recordStartSize - 1);
    return head;
  }
  head.date = bytes.substr(0, dateSize);
  auto size = static_cast<std::size_t>(head.subsystem->data() - bytes.data());
  readIdentifiers(bytes.substr(dateSize, size - 1 - dateSize), head);
  size += head.subsystem->size() + 1;
  if (bytes.substr(size).starts_with(' ')) ++size;
  if (bytes.size() > size) head.level = levelOf(bytes.substr(size));
  if (head.level) size += levelSize;
  head.prefix = bytes.substr(0, size);
  return head;
}

}  // namespace

std::size_t RecordParser::add(std::string_view bytes, bool isLast) {
  std::size_t done = 0;
  std::size_t next = bytes.find(velum::recordSeparator);
  while (next != std::string_view::npos) {
    const std::string_view rest = bytes.substr(next);
    if (!isLast && next > 0 && rest.size() < velum::mostPrefixSize) {
      text(bytes.substr(done, next - done));
      return next;
    }
    if (velum::beginsRecord(rest)) {
      text(bytes.substr(done, next - done));
      finish();
      const RecordHead head = parsedHead(rest);
      sink_.begin(head);
      isOpen_ = true;
      done = next + 1 + head.prefix.size();
    }
    next = bytes.find(velum::recordSeparator, std::max(done, next + 1));
  }
  text(bytes.substr(done));
  return bytes.size();
}

void RecordParser::text(std::string_view bytes) {
  if (bytes.empty()) return;
  if (!isOpen_) sink_.begin({});
  isOpen_ = true;
  sink_.text(bytes);
}

void RecordParser::finish() {
  if (isOpen_) sink_.end();
  isOpen_ = false;
}

void RecordFilter::begin(const RecordHead& head) {
  const bool isOfSubsystem =
      subsystems_.empty() ||
      (head.subsystem && std::ranges::find(subsystems_, *head.subsystem) != subsystems_.end());
  passes_ = isOfSubsystem && (!level_ || (head.level && *head.level >= *level_));
  if (passes_) sink_.begin(head);
}

void RecordFilter::text(std::string_view bytes) {
  if (passes_) sink_.text(bytes);
}

void RecordFilter::end() {
  if (passes_) sink_.end();
}

}  // namespace velumctl
