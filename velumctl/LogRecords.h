#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Logger/LogLevel.h"

namespace velumctl {

/// What stands before a record's message. The views are of the bytes given to the parser and hold
/// no longer than the call of `begin`. Everything is absent for text without a record's start.
struct RecordHead {
  std::string_view prefix;  ///< All of it as it stands in the file, without the separator.
  std::string_view date;    ///< "2026-11-16 07:15:17.123", local time.
  std::optional<std::int64_t> process;
  std::optional<std::uint64_t> thread;
  std::optional<std::string_view> subsystem;
  std::optional<velum::LogLevel> level;
};

/// Takes records piece by piece, so that a message of any size needs no memory: `begin`, any number
/// of `text`, `end`. The message's last line feed, which ends the record, is part of it.
class RecordSink {
 public:
  RecordSink() = default;
  RecordSink(const RecordSink&) = delete;
  RecordSink& operator=(const RecordSink&) = delete;
  virtual ~RecordSink() = default;

  virtual void begin(const RecordHead& head) = 0;
  virtual void text(std::string_view bytes) = 0;
  virtual void end() = 0;
};

/// Takes the bytes of a log file apart into records.
class RecordParser {
 public:
  explicit RecordParser(RecordSink& sink) : sink_(sink) {}

  /// Adds bytes and returns how many were used up: the start of a record that may go on behind
  /// them is left, unless they are the last ones for now.
  std::size_t add(std::string_view bytes, bool isLast);
  /// The current record is complete.
  void finish();

 private:
  void text(std::string_view bytes);

  RecordSink& sink_;
  bool isOpen_ = false;
};

/// Passes on the records of some subsystems, all where none is named, and of a level or worse.
/// What has no level or no subsystem passes only where that was not asked for.
class RecordFilter final : public RecordSink {
 public:
  RecordFilter(RecordSink& sink, std::vector<std::string> subsystems,
               std::optional<velum::LogLevel> level)
      : sink_(sink), subsystems_(std::move(subsystems)), level_(level) {}

  void begin(const RecordHead& head) override;
  void text(std::string_view bytes) override;
  void end() override;

 private:
  RecordSink& sink_;
  std::vector<std::string> subsystems_;
  std::optional<velum::LogLevel> level_;
  bool passes_ = false;
};

}  // namespace velumctl
