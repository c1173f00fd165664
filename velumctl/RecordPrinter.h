#pragma once

#include <string>
#include <string_view>

#include "velumctl/LogRecords.h"
#include "velumctl/Terminal.h"

namespace velumctl {

/// Joins the pieces of a text into pieces of well-formed UTF-8, whatever bytes come. A sequence
/// that a piece ends in waits for the next one.
class Utf8Repair {
 public:
  std::string add(std::string_view piece);
  std::string finish();

 private:
  std::string held_;
};

/// Prints records as they stand in the file, without their separators: byte for byte for programs,
/// and for a terminal readable, with control characters made visible (a log may hold what others
/// sent, and must not operate the terminal), warnings in yellow and errors in red.
class TextPrinter final : public RecordSink {
 public:
  enum class Style { plain, terminal, colour };
  TextPrinter(Output& output, Style style) : output_(output), style_(style) {}

  void begin(const RecordHead& head) override;
  void text(std::string_view bytes) override;
  void end() override;

 private:
  void printLines(std::string_view text);
  void endLine();

  Output& output_;
  Style style_;
  Utf8Repair repair_;
  std::string_view colour_;      // of the current record
  bool isInColour_ = false;      // the terminal is switched to it
  bool endsWithNewline_ = true;  // what was printed so far
};

/// Prints each record as a JSON object on a line of its own.
class JsonPrinter final : public RecordSink {
 public:
  explicit JsonPrinter(Output& output) : output_(output) {}

  void begin(const RecordHead& head) override;
  void text(std::string_view bytes) override;
  void end() override;

 private:
  void print(std::string_view text);

  Output& output_;
  Utf8Repair repair_;
  bool holdsNewline_ = false;  // part of the message only if more of it follows
};

}  // namespace velumctl
