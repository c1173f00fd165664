#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Logger/LogHandler.h"
#include "Velum/Platform/Posix/UniqueFd.h"

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

/// Finds the part of a log file that a range of dates covers without reading the rest: bisection
/// by probes of one buffer, then a forward scan.
///
/// A record begins at a separator that a date follows; a separator inside a message is part of the
/// message. Dates normally ascend. Local time steps back by an hour when daylight saving ends, and
/// a corrected clock may step back too: steps of up to `backwardSteps` move no record that belongs
/// to the range out of the result, which then also holds what was written around the step.
class LogSearch {
 public:
  static constexpr std::chrono::minutes backwardSteps{61};

  explicit LogSearch(LogReader& reader) : reader_(reader) {}

  /// From the first record that is not earlier than `lower` to the end of the last one that is not
  /// later than `upper`, in whole seconds, both inclusive. An absent bound is the file's own.
  LogRange range(std::optional<LogDate> lower, std::optional<LogDate> upper);

  /// How a record begins that was written at `date`, without its milliseconds. Keys compare like
  /// their dates: the text has a fixed width and runs from the year to the second.
  static std::string key(LogDate date);

 private:
  /// What a look at a buffer yields.
  enum class Outcome : std::uint8_t {
    found,             ///< A record; compared to a key: of that very second.
    foundLaterDate,    ///< One of a later second.
    foundEarlierDate,  ///< One of an earlier second.
    incompleteData,    ///< The buffer ends inside a record's date.
    notFound,          ///< No record begins here.
  };
  struct Probe {
    Outcome outcome = Outcome::notFound;
    std::int64_t position = 0;  ///< Where the record begins, in the buffer or in the file.
    std::string_view start;     ///< Its separator and date, to the second.
  };

  static Probe nextRecord(std::string_view bytes, std::size_t offset, bool isEndOfFile);
  static Outcome compared(const Probe& record, std::string_view key);
  /// Calls `visit` with each record that begins from `from` on but before `to`, until it says no.
  template <class Visit>
  void scan(std::int64_t from, std::int64_t to, Visit visit);
  std::int64_t bisect(std::string_view key);
  std::int64_t lowerPosition(LogDate date);
  std::int64_t upperPosition(LogDate date);

  LogReader& reader_;
};

}  // namespace velum
