#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/LogHandler.h"

namespace velum {

/// Reads a part of a file through one buffer of 1 MiB, and counts what it read.
class LogReader {
 public:
  static constexpr std::size_t bufferSize = 1'048'576;

  /// Opens the file. Throws SystemError; `caller` begins the messages.
  LogReader(std::string path, std::string_view caller);

  const std::string& path() const noexcept { return path_; }
  std::int64_t size() const noexcept { return size_; }
  std::int64_t bytesRead() const noexcept { return bytesRead_; }

  /// The bytes from `position` on, as many as the buffer takes but none from `end` on. Less only
  /// at the end of the file. Valid until the next call.
  std::string_view readAt(std::int64_t position, std::int64_t end);

 private:
  std::string path_;
  std::string caller_;
  UniqueFd fd_;
  std::int64_t size_;
  std::vector<char> buffer_;
  std::int64_t bytesRead_ = 0;
};

/// The bytes of a file from `begin` up to, not including, `end`.
struct LogRange {
  std::int64_t begin = 0;
  std::int64_t end = 0;
  bool isEmpty() const noexcept { return begin >= end; }
};

/// `date` moved by some time; not beyond what a LogDate can hold.
LogDate later(LogDate date, std::chrono::seconds by) noexcept;

/// Finds the part of a log file that a range of dates covers.
///
/// A record begins at a separator that a date follows; a separator inside a message is part of the
/// message. Dates ascend, but for what writers that wait for each other turn round (`jitter`), as
/// long as nobody sets the clock back. Where that happened, no record of the range is lost either,
/// and the result holds what was written in between:
///
/// A file of up to `wholeSize` bytes is looked through record by record. In a larger one, the first
/// record behind every `probeSpacing` bytes is looked at, and the last one. Only what these probes
/// can't rule out is looked through; when one is earlier than another before it, everything is.
/// What stays unseen in a large file is a clock that was wrong and right again between two probes,
/// while nothing else in the file is out of order and what was written around is not of the range.
/// To see that as well, every date would have to be read, which takes six times as long for two
/// files of 50 MiB. Two of `wholeSize` are at most 40 MiB read beyond the range.
class LogSearch {
 public:
  static constexpr std::int64_t wholeSize = 20'971'520;
  static constexpr std::int64_t probeSpacing = 32'768;
  static constexpr std::chrono::seconds jitter{60};

  /// `mostWhole` stands in for `wholeSize`.
  explicit LogSearch(LogReader& reader, std::int64_t mostWhole = wholeSize)
      : reader_(reader), mostWhole_(mostWhole) {}

  /// From the first record of the range to the end of the last one, in whole seconds, both bounds
  /// inclusive; empty, at the end of the file, when there is none. An absent bound is the file's
  /// own, and so is the end when the file's last record is not later than `upper`. A bound in an
  /// hour that the zone's clock passes twice is both of them.
  LogRange range(std::optional<LogDate> lower, std::optional<LogDate> upper);

  /// How a record begins that was written at `date`, without its milliseconds. Keys compare like
  /// their dates: the text has a fixed width and runs from the year to the second.
  static std::string key(LogDate date);

 private:
  /// What a look at a buffer yields.
  enum class Outcome : std::uint8_t {
    found,             ///< A record; compared to the bounds: one between them.
    foundLaterDate,    ///< One of a later second.
    foundEarlierDate,  ///< One of an earlier second.
    incompleteData,    ///< The buffer ends inside a record's date.
    notFound,          ///< No record begins here.
  };
  struct Probe {
    Outcome outcome = Outcome::notFound;
    std::int64_t position = 0;  ///< Where the record begins, in the buffer or in the file.
    std::string_view start;     ///< Its separator and date, to the second; of the buffer.
  };
  /// Keys; a record of the range is between them, both inclusive.
  struct Bounds {
    std::string first;
    std::string last;
  };
  struct Record {
    std::int64_t position = 0;  ///< In the file.
    std::string start;
  };
  /// What probes could not rule out.
  struct Suspects {
    LogRange part;
    std::int64_t inside = 0;  ///< Where the last probe of the range is; or 0.
  };
  class Probes;

  static Bounds bounds(std::optional<LogDate> lower, std::optional<LogDate> upper);
  static Outcome compared(std::string_view start, const Bounds& bounds);
  static Probe nextRecord(std::string_view bytes, std::size_t offset, bool isEndOfFile);
  /// Calls `visit` with each record that begins from `from` on but before `to`, until it says no.
  /// Reads `step` bytes first, and more from step to step.
  template <class Visit>
  void scan(std::int64_t from, std::int64_t to, std::int64_t step, Visit visit);
  std::optional<Record> lastRecord();
  std::optional<Suspects> probe(const Bounds& bounds, const Bounds& wideBounds, const Record& last);
  std::int64_t beginIn(const Suspects& suspects, const Bounds& bounds);
  std::int64_t endIn(const Suspects& suspects, const Bounds& bounds, std::int64_t begin);

  LogReader& reader_;
  std::int64_t mostWhole_;
};

}  // namespace velum
