#include "Velum/Logger/LogSearch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "Velum/Files/CheckedIo.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"

namespace velum {
namespace {

constexpr std::string_view millisecondsText = ".SSS";

// A record that begins just before the end of a part has its date behind it.
constexpr auto lookAhead = static_cast<std::int64_t>(recordStartSize);
// Mostly what is looked for is near: so reading begins small, and grows to whole buffers.
constexpr std::int64_t smallStep = 65'536;

LogSite site(CallPlace where = CallPlace::current()) {
  return {"Velum/FileLogManager", "doSaveLogs(_:selecting:in:opts:)", where};
}

}  // namespace

LogReader::LogReader(std::string path, std::string_view caller)
    : path_(std::move(path)),
      caller_(caller),
      fd_(checked::open(path_, O_RDONLY | O_NONBLOCK, 0, caller)),
      size_(checked::lseek(fd_.get(), 0, SEEK_END, caller)),
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

namespace {

// By how much local time steps back at most when the zone changes its clock; on a whole minute.
constexpr std::chrono::minutes zoneStep{61};
constexpr std::chrono::minutes oneMinute{1};

// The earliest and the latest key that a moment of the range has: local time passes an hour twice.
std::string earliestKey(LogDate from, LogDate to) {
  std::string earliest = LogSearch::key(from);
  const LogDate end = std::min(to, later(from, zoneStep));
  for (auto minute = std::chrono::ceil<std::chrono::minutes>(from); minute <= end;
       minute += oneMinute) {
    earliest = std::min(earliest, LogSearch::key(minute));
  }
  return earliest;
}

std::string latestKey(LogDate from, LogDate to) {
  std::string latest = LogSearch::key(to);
  const LogDate begin = std::max(from, later(to, -zoneStep));
  for (auto minute = std::chrono::floor<std::chrono::minutes>(to); minute > begin;
       minute -= oneMinute) {
    latest = std::max(latest, LogSearch::key(minute - std::chrono::seconds(1)));
  }
  return latest;
}

}  // namespace

LogDate later(LogDate date, std::chrono::seconds by) noexcept {
  constexpr std::chrono::hours edge(24);
  if (by.count() > 0 && date > LogDate::max() - edge - by) return LogDate::max() - edge;
  if (by.count() < 0 && date < LogDate::min() + edge - by) return LogDate::min() + edge;
  return date + by;
}

LogSearch::Bounds LogSearch::bounds(std::optional<LogDate> lower, std::optional<LogDate> upper) {
  constexpr char behindSeparator = recordSeparator + 1;
  return {
      lower ? earliestKey(*lower, upper.value_or(LogDate::max())) : "",
      upper ? latestKey(lower.value_or(LogDate::min()), *upper) : std::string(1, behindSeparator)};
}

LogSearch::Outcome LogSearch::compared(std::string_view start, const Bounds& bounds) {
  if (start < bounds.first) return Outcome::foundEarlierDate;
  return start > bounds.last ? Outcome::foundLaterDate : Outcome::found;
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

template <class Visit>
void LogSearch::scan(std::int64_t from, std::int64_t to, std::int64_t step, Visit visit) {
  const std::int64_t readable = std::min(to + lookAhead, reader_.size());
  constexpr auto largestStep = static_cast<std::int64_t>(LogReader::bufferSize);
  for (; from < to; step = std::min(step * 4, largestStep)) {
    const std::int64_t wanted = std::min(from + step, readable);
    const std::string_view bytes = reader_.readAt(from, wanted);
    const std::int64_t end = from + static_cast<std::int64_t>(bytes.size());
    const bool isLast = end >= readable || end < wanted;  // the file became shorter
    Probe next = nextRecord(bytes, 0, isLast);
    while (next.outcome == Outcome::found) {
      const auto offset = static_cast<std::size_t>(next.position);
      next.position += from;
      if (next.position >= to || !visit(next)) return;
      next = nextRecord(bytes, offset + 1, isLast);
    }
    if (isLast) return;
    from = next.outcome == Outcome::incompleteData ? from + next.position : end;
  }
}

std::optional<LogSearch::Record> LogSearch::lastRecord() {
  constexpr auto largestStep = static_cast<std::int64_t>(LogReader::bufferSize) - lookAhead;
  std::int64_t step = smallStep;
  for (std::int64_t end = reader_.size(); end > 0; step = largestStep) {
    const std::int64_t begin = std::max<std::int64_t>(end - step, 0);
    std::string_view bytes = reader_.readAt(begin, std::min(end + lookAhead, reader_.size()));
    for (std::size_t offset = bytes.rfind(recordSeparator); offset != std::string_view::npos;
         offset = bytes.rfind(recordSeparator)) {
      const std::string_view start = bytes.substr(offset, recordStartSize);
      if (beginsRecord(start)) {
        return Record{begin + static_cast<std::int64_t>(offset), std::string(start)};
      }
      bytes.remove_suffix(bytes.size() - offset);
    }
    end = begin;
  }
  return std::nullopt;
}

namespace {

// The date of a record's start, as if it were universal time: to tell how far two are apart.
std::chrono::sys_seconds dateOf(std::string_view start) {
  using namespace std::chrono;
  const auto number = [start](std::size_t at, std::size_t digits) {
    int value = 0;
    for (const char c : start.substr(at, digits)) value = value * 10 + (c - '0');
    return value;
  };
  const month inYear(static_cast<unsigned>(std::clamp(number(6, 2), 1, 12)));
  return sys_days(year(number(1, 4)) / inYear / 1) + days(number(9, 2)) + hours(number(12, 2)) +
         minutes(number(15, 2)) + seconds(number(18, 2));
}

}  // namespace

// What the probes tell, from the first to the last.
class LogSearch::Probes {
 public:
  Probes(const Bounds& bounds, const Bounds& wideBounds, std::int64_t size)
      : bounds_(bounds), wideBounds_(wideBounds), end_(size) {}

  /// False when the record is earlier than one before it.
  bool add(std::int64_t position, std::string_view start) {
    // In the wider bounds, so that between two probes outside of them on the same side no record
    // is of the range, however the writers were turned round.
    const Outcome outcome = compared(start, wideBounds_);
    areAllEarlier_ = areAllEarlier_ && outcome == Outcome::foundEarlierDate;
    if (areAllEarlier_) begin_ = position;
    if (outcome == Outcome::foundLaterDate) end_ = std::min(end_, position);
    if (compared(start, bounds_) == Outcome::found) inside_ = position;
    const std::chrono::sys_seconds date = dateOf(start);
    latest_ = std::max(latest_, date);
    return date + jitter >= latest_;
  }

  Suspects suspects() const { return {{begin_, end_}, inside_}; }

 private:
  const Bounds& bounds_;
  const Bounds& wideBounds_;
  bool areAllEarlier_ = true;
  std::int64_t begin_ = 0;  // the last of those
  std::int64_t end_;        // the first later one
  std::int64_t inside_ = 0;
  std::chrono::sys_seconds latest_ = std::chrono::sys_seconds::min();
};

// Nothing when the records are not in order.
std::optional<LogSearch::Suspects> LogSearch::probe(const Bounds& bounds, const Bounds& wideBounds,
                                                    const Record& last) {
  constexpr std::int64_t step = 512;
  Probes probes(bounds, wideBounds, reader_.size());
  for (std::int64_t position = 0; position < last.position;) {
    Probe next;
    scan(position, last.position, step, [&next](const Probe& record) {
      next = record;
      return false;
    });
    if (next.outcome != Outcome::found) {
      logVerbose(site(), "No record separator at {}", position);
      break;
    }
    if (!probes.add(next.position, next.start)) return std::nullopt;
    position = std::max(position + probeSpacing, next.position + 1);
  }
  if (!probes.add(last.position, last.start)) return std::nullopt;
  return probes.suspects();
}

// The end of the suspects when no record of the range is among them.
std::int64_t LogSearch::beginIn(const Suspects& suspects, const Bounds& bounds) {
  std::int64_t begin = suspects.part.end;
  scan(suspects.part.begin, suspects.part.end, smallStep, [&](const Probe& record) {
    if (compared(record.start, bounds) != Outcome::found) return true;
    begin = record.position;
    return false;
  });
  return begin;
}

std::int64_t LogSearch::endIn(const Suspects& suspects, const Bounds& bounds, std::int64_t begin) {
  std::int64_t end = begin;
  bool isInside = false;
  scan(std::max(begin, suspects.inside), suspects.part.end, smallStep, [&](const Probe& record) {
    if (isInside) end = record.position;
    isInside = compared(record.start, bounds) == Outcome::found;
    return true;
  });
  return isInside ? suspects.part.end : end;
}

LogRange LogSearch::range(std::optional<LogDate> lower, std::optional<LogDate> upper) {
  const LogRange everything{0, reader_.size()};
  if (!lower && !upper) return everything;
  const LogRange nothing{everything.end, everything.end};
  if (lower && upper && *lower > *upper) return nothing;
  const std::optional<Record> last = lastRecord();
  if (!last) {
    logVerbose(site(), "No Date found in {}", reader_.path());
    return nothing;
  }
  const Bounds bounds = LogSearch::bounds(lower, upper);
  std::optional<Suspects> suspects;
  if (reader_.size() > mostWhole_) {
    const auto widened = [](std::optional<LogDate> date, std::chrono::seconds by) {
      return date ? std::optional(later(*date, by)) : date;
    };
    // Twice: a clock set back by less than the jitter goes unnoticed and adds to it.
    const Bounds wide = LogSearch::bounds(widened(lower, -2 * jitter), widened(upper, 2 * jitter));
    suspects = probe(bounds, wide, *last);
  }
  if (!suspects) suspects = Suspects{everything, 0};

  LogRange range{lower ? beginIn(*suspects, bounds) : 0, reader_.size()};
  const bool endsInside = compared(last->start, bounds) != Outcome::foundLaterDate;
  if (!endsInside) range.end = endIn(*suspects, bounds, range.begin);
  const bool isFound = range.begin < suspects->part.end && !range.isEmpty();
  if (!isFound) logVerbose(site(), "Not found date in {}", reader_.path());
  return isFound ? range : nothing;
}

}  // namespace velum
