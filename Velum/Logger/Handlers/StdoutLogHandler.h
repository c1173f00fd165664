#pragma once

#include "Velum/Logger/LogHandler.h"

namespace velum {

/// Prints records to standard output, one per line, without a date. Goes through the C library's
/// stream, so records and other output of the program keep their order; flushed at every record.
class StdoutLogHandler final : public LogHandlerProtocol {
 public:
  void logWithLevel(LogLevel level, LogDate date, std::string_view text) override;
};

}  // namespace velum
