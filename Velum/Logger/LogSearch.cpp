#include "Velum/Logger/LogSearch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "Velum/FileUtils.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"

namespace velum {
namespace {

constexpr std::string_view millisecondsText = ".SSS";

LogSite site(CallPlace where = CallPlace::current()) {
  return {"Velum/FileLogManager", "doSaveLogs(_:selecting:in:opts:)", where};
}

}  // namespace

LogReader::LogReader(std::string path, std::string_view caller)
    : path_(std::move(path)),
      caller_(caller),
      fd_(checked::open(path_, O_RDONLY, 0, caller)),
      size_(checked::fileSize(path_, caller)),
      buffer_(bufferSize) {}

std::string_view LogReader::readAt(std::int64_t position, std::int64_t end) {
  const auto wanted = static_cast<std::size_t>(
      std::clamp<std::int64_t>(end - position, 0, static_cast<std::int64_t>(buffer_.size())));
  checked::lseek(fd_.get(), position, SEEK_SET, caller_);
  std::size_t filled = 0;
  while (filled < wanted) {
    const std::size_t got =
        checked::read(fd_.get(), buffer_.data() + filled, wanted - filled, caller_);
    if (got == 0) break;
    filled += got;
  }
  bytesRead_ += static_cast<std::int64_t>(filled);
  return {buffer_.data(), filled};
}

std::string LogSearch::key(LogDate date) {
  std::string key(1, recordSeparator);
  appendLogDate(key, date);
  key.resize(key.size() - millisecondsText.size());
  return key;
}

LogSearch::Probe LogSearch::nextRecord(std::string_view bytes, std::size_t offset,
                                       bool isEndOfFile) {
  for (;; ++offset) {
    offset = bytes.find(recordSeparator, offset);
    if (offset == std::string_view::npos) return {};
    const auto position = static_cast<std::int64_t>(offset);
    const std::string_view start = bytes.substr(offset, recordStartSize);
    if (start.size() < recordStartSize) {
      return {isEndOfFile ? Outcome::notFound : Outcome::incompleteData, position, {}};
    }
    if (beginsRecord(start)) return {Outcome::found, position, start};
  }
}

LogSearch::Outcome LogSearch::compared(const Probe& record, std::string_view key) {
  if (record.outcome != Outcome::found) return record.outcome;
  const int order = record.start.compare(key);
  if (order == 0) return Outcome::found;
  return order < 0 ? Outcome::foundEarlierDate : Outcome::foundLaterDate;
}

template <class Visit>
void LogSearch::scan(std::int64_t from, std::int64_t to, Visit visit) {
  // A record that begins just before `to` has its date behind it.
  constexpr auto lookAhead = static_cast<std::int64_t>(recordStartSize);
  const std::int64_t readable = std::min(to + lookAhead, reader_.size());
  // Mostly the first record decides, and it is near: so begin small, and grow to whole buffers.
  constexpr std::int64_t smallStep = 65'536;
  constexpr auto largeStep = static_cast<std::int64_t>(LogReader::bufferSize);
  for (std::int64_t step = smallStep; from < to; step = std::min(step * 4, largeStep)) {
    const std::string_view bytes = reader_.readAt(from, std::min(from + step, readable));
    if (bytes.empty()) return;  // the file became shorter
    const std::int64_t end = from + static_cast<std::int64_t>(bytes.size());
    Probe next = nextRecord(bytes, 0, end >= readable);
    while (next.outcome == Outcome::found) {
      const auto offset = static_cast<std::size_t>(next.position);
      next.position += from;
      if (next.position >= to || !visit(next)) return;
      next = nextRecord(bytes, offset + 1, end >= readable);
    }
    from = next.outcome == Outcome::incompleteData ? from + next.position : end;
  }
}

// A position before which, in a log whose dates ascend, every record is earlier than `key`: 0, or
// that of an earlier record no more than about one buffer before the first other one.
std::int64_t LogSearch::bisect(std::string_view key) {
  constexpr auto nearEnough = static_cast<std::int64_t>(LogReader::bufferSize);
  std::int64_t low = 0;
  std::int64_t high = reader_.size();
  while (high - low > nearEnough) {
    const std::int64_t middle = low + (high - low) / 2;
    std::int64_t position = middle;
    Outcome outcome = Outcome::notFound;
    scan(middle, high, [&](const Probe& record) {
      position = record.position;
      outcome = compared(record, key);
      return false;
    });
    if (outcome == Outcome::notFound) logVerbose(site(), "No record separator at {}", middle);
    if (outcome == Outcome::foundEarlierDate) {
      low = position;
    } else {
      high = middle;
    }
  }
  return low;
}

std::int64_t LogSearch::lowerPosition(LogDate date) {
  const std::string wanted = key(date);
  std::optional<std::int64_t> position;
  bool sawRecord = false;
  scan(bisect(key(date - backwardSteps)), reader_.size(), [&](const Probe& record) {
    sawRecord = true;
    if (compared(record, wanted) != Outcome::foundEarlierDate) position = record.position;
    return !position;
  });
  if (!position) {
    logVerbose(site(), "{}{}", sawRecord ? "Not found date in " : "No Date found in ",
               reader_.path());
  }
  return position.value_or(reader_.size());
}

// Goes on for a while after the first record that is too late: where the clock stepped back, more
// of the range follows.
std::int64_t LogSearch::upperPosition(LogDate date) {
  const std::string wanted = key(date);
  const std::string farTooLate = key(date + backwardSteps);
  std::int64_t end = bisect(key(date - backwardSteps));
  bool endsHere = false;  // the last record seen is in the range, so its end is one
  scan(end, reader_.size(), [&](const Probe& record) {
    if (endsHere) end = record.position;
    endsHere = compared(record, wanted) != Outcome::foundLaterDate;
    return compared(record, farTooLate) != Outcome::foundLaterDate;
  });
  return endsHere ? reader_.size() : end;
}

LogRange LogSearch::range(std::optional<LogDate> lower, std::optional<LogDate> upper) {
  return {lower ? lowerPosition(*lower) : 0, upper ? upperPosition(*upper) : reader_.size()};
}

}  // namespace velum
