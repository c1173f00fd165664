#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/LogSaving.h"
#include "Velum/Logger/LogSearch.h"

namespace velum {

/// Distributes records over one file per subsystem, "<subsystem>.log" in a folder. A name that
/// can't name a file is changed, and a warning says so. Bytes that
/// follow a record's start belong to it up to the next record's start, whatever they are.
///
/// Memory is bounded: bytes are gathered per file and written out together. Throws SystemError.
class LogSplitter {
 public:
  LogSplitter(std::string folder, const LogSubsystemSelector& selector, std::string_view caller)
      : folder_(std::move(folder)), selector_(selector), caller_(caller) {}

  /// Adds the records of `range`, which begins with a record or at the start of the file.
  void add(LogReader& reader, LogRange range);

  /// Writes what is still gathered. Returns the files, in the order of their first records.
  std::vector<std::string> finish();

 private:
  struct Output {
    std::string path;
    std::string gathered;
    UniqueFd file;           // kept open where that does not use up the descriptors
    std::string head;        // from the date to the message, of a record that went here
    Output* next = nullptr;  // where the record behind one of these went
  };

  /// Lets names be looked up without a copy.
  struct NameHash : std::hash<std::string_view> {
    using is_transparent = void;  // NOLINT(readability-identifier-naming): the standard's name
  };

  std::size_t addRecords(std::string_view bytes, std::int64_t position, bool isLast);
  void append(std::string_view bytes, std::int64_t position);
  Output* outputFor(std::string_view record);
  void reportSkipped();
  void write(Output& output, std::size_t size);
  UniqueFd opened(const std::string& path);
  void flush();

  std::string folder_;
  const LogSubsystemSelector& selector_;
  std::string caller_;
  std::unordered_map<std::string, Output, NameHash, std::equal_to<>> outputs_;
  std::size_t openFiles_ = 0;
  std::size_t mostOpenFiles_ = 64;  // 0 when so many could not be had
  std::vector<std::string> paths_;
  Output* current_ = nullptr;  // where the bytes before the next record go; null: nowhere
  std::size_t gathered_ = 0;
  std::optional<LogRange> skipped_;
};

}  // namespace velum
