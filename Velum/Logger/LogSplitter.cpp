#include "Velum/Logger/LogSplitter.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

#include "Velum/Base/StableHash.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"

namespace velum {
namespace {

// Sizes that stay in a processor's own cache from the read to the write.
constexpr std::int64_t readSize = 262'144;
constexpr std::size_t writeUnit = 65'536;  // whole units are written where the system likes them
constexpr std::size_t mostGathered = 4 * writeUnit;  // for one file
constexpr std::size_t mostGatheredTogether = std::size_t{4} << 20U;

// The name comes from the log's content, which any process of the group may have written: what
// can't name a file, or is not plain ASCII, is replaced, and a number made of the whole name tells
// it from others.
std::string fileName(std::string_view subsystem) {
  constexpr std::size_t longestName = 200;
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~' && c != '/'; };
  std::string name(subsystem.substr(0, longestName));
  if (!name.empty() && name.front() != '.' && name.size() == subsystem.size() &&
      std::ranges::all_of(name, isPlain)) {
    return name + ".log";
  }
  std::ranges::replace_if(name, std::not_fn(isPlain), '_');
  if (name.starts_with('.')) name.front() = '_';  // not hidden
  name += fmt::format("-{:08x}.log", stableHash<std::uint32_t>(subsystem));
  logWarning({"Velum/FileLogManager", "doSaveLogs(_:selecting:in:opts:)"},
             "The records of a subsystem whose name can't name a file are saved as {}", name);
  return name;
}

}  // namespace

void LogSplitter::add(LogReader& reader, LogRange range) {
  current_ = nullptr;
  for (std::int64_t position = range.begin; position < range.end;) {
    const std::string_view bytes =
        reader.readAt(position, std::min(range.end, position + readSize));
    if (bytes.empty()) break;  // the file became shorter
    const bool isLast = position + static_cast<std::int64_t>(bytes.size()) >= range.end;
    position += static_cast<std::int64_t>(addRecords(bytes, position, isLast));
  }
  reportSkipped();
}

// Returns how many of the bytes it used up: a record whose prefix may go on behind them is left.
std::size_t LogSplitter::addRecords(std::string_view bytes, std::int64_t position, bool isLast) {
  std::size_t done = 0;
  const auto appendUpTo = [&](std::size_t end) {
    append(bytes.substr(done, end - done), position + static_cast<std::int64_t>(done));
    done = end;
  };
  for (std::size_t next = bytes.find(recordSeparator); next != std::string_view::npos;
       next = bytes.find(recordSeparator, next + 1)) {
    const bool isWhole = isLast || bytes.size() - next >= mostPrefixSize;
    if (!isWhole && next > 0) {
      appendUpTo(next);
      return done;
    }
    const std::string_view record = bytes.substr(next);
    if (!beginsRecord(record)) continue;
    Output* const output = outputFor(record);
    if (output == current_) continue;  // goes on where the bytes before it go
    appendUpTo(next);
    current_ = output;
  }
  appendUpTo(bytes.size());
  return done;
}

void LogSplitter::append(std::string_view bytes, std::int64_t position) {
  if (bytes.empty()) return;
  if (current_ == nullptr) {
    const std::int64_t end = position + static_cast<std::int64_t>(bytes.size());
    skipped_ = LogRange{skipped_ ? skipped_->begin : position, end};
    return;
  }
  reportSkipped();
  current_->gathered += bytes;
  gathered_ += bytes.size();
  if (current_->gathered.size() >= mostGathered) {
    write(*current_, current_->gathered.size() / writeUnit * writeUnit);
  } else if (gathered_ >= mostGatheredTogether) {
    flush();
  }
}

// Records mostly come in the order they came in before, from the same threads: the first guess
// saves taking the prefix apart.
LogSplitter::Output* LogSplitter::outputFor(std::string_view record) {
  const std::string_view behindDate = record.substr(std::min(record.size(), recordDateEnd));
  Output* const guess = current_ == nullptr ? nullptr : current_->next;
  if (guess != nullptr && behindDate.starts_with(guess->head)) return guess;

  const auto subsystem = recordSubsystem(record);
  if (!subsystem) return nullptr;
  auto found = outputs_.find(*subsystem);
  if (found == outputs_.end()) {
    if (!selector_.admits(*subsystem)) return nullptr;
    Output output;
    output.path = folder_ + '/' + fileName(*subsystem);
    paths_.push_back(output.path);
    found = outputs_.emplace(*subsystem, std::move(output)).first;
  }
  Output* const output = &found->second;
  const char* const end = subsystem->data() + subsystem->size() + 1;  // with the bracket
  output->head.assign(behindDate.data(), end);
  if (current_ != nullptr) current_->next = output;
  return output;
}

void LogSplitter::reportSkipped() {
  if (!skipped_) return;
  logVerbose({"Velum/FileLogManager", caller_}, "SKIP unrecognized subsystem in range {}..<{}",
             skipped_->begin, skipped_->end);
  skipped_.reset();
}

// Writes the first `size` gathered bytes. A log that names thousands of subsystems must not use up
// the descriptors: files beyond the first few are opened anew for each write.
void LogSplitter::write(Output& output, std::size_t size) {
  const bool wasOpen = static_cast<bool>(output.file);
  UniqueFd file = wasOpen ? std::move(output.file) : opened(output.path);
  checked::write(file.get(), output.gathered.data(), size, caller_);
  if (wasOpen || openFiles_ < mostOpenFiles_) {
    output.file = std::move(file);
    if (!wasOpen) ++openFiles_;
  }
  output.gathered.erase(0, size);
  gathered_ -= size;
}

UniqueFd LogSplitter::opened(const std::string& path) try {
  return checked::open(path, O_WRONLY | O_CREAT | O_APPEND, 0660, caller_);
} catch (const SystemError& error) {
  if (openFiles_ == 0 || (error.code() != EMFILE && error.code() != ENFILE)) throw;
  for (auto& [subsystem, output] : outputs_) output.file.reset();
  openFiles_ = 0;
  mostOpenFiles_ = 0;
  return opened(path);
}

void LogSplitter::flush() {
  for (auto& [subsystem, output] : outputs_) {
    if (!output.gathered.empty()) write(output, output.gathered.size());
  }
}

std::vector<std::string> LogSplitter::finish() {
  flush();
  return paths_;
}

}  // namespace velum
