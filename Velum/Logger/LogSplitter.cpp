#include "Velum/Logger/LogSplitter.h"

#include <fcntl.h>

#include "Velum/FileUtils.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"

namespace velum {
namespace {

constexpr std::size_t mostGathered = 4 * LogReader::bufferSize;

}  // namespace

void LogSplitter::add(LogReader& reader, LogRange range) {
  current_ = nullptr;
  for (std::int64_t position = range.begin; position < range.end;) {
    const std::string_view bytes = reader.readAt(position, range.end);
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
  if (gathered_ >= mostGathered) flush();
}

LogSplitter::Output* LogSplitter::outputFor(std::string_view record) {
  const auto subsystem = recordSubsystem(record);
  if (!subsystem) return nullptr;
  const auto found = outputs_.find(*subsystem);
  if (found != outputs_.end()) return &found->second;
  if (!selector_.admits(*subsystem)) return nullptr;
  const std::string path = folder_ + '/' + std::string(*subsystem) + ".log";
  paths_.push_back(path);
  return &outputs_.emplace(*subsystem, Output{path, {}}).first->second;
}

void LogSplitter::reportSkipped() {
  if (!skipped_) return;
  logVerbose({"Velum/FileLogManager", caller_}, "SKIP unrecognized subsystem in range {}..<{}",
             skipped_->begin, skipped_->end);
  skipped_.reset();
}

// Opens a file each time it has something for it, so that a log that names thousands of
// subsystems does not exhaust the descriptors.
void LogSplitter::flush() {
  for (auto& [subsystem, output] : outputs_) {
    if (output.gathered.empty()) continue;
    const UniqueFd file = checked::open(output.path, O_WRONLY | O_CREAT | O_APPEND, 0660, caller_);
    checked::write(file.get(), output.gathered.data(), output.gathered.size(), caller_);
    output.gathered.clear();
  }
  gathered_ = 0;
}

std::vector<std::string> LogSplitter::finish() {
  flush();
  return paths_;
}

}  // namespace velum
