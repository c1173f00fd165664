#pragma once

#include "Velum/Logger/LogHandler.h"

namespace velum {

/// Sends records to the process's console. The logger's default handler. The console stamps each
/// line with its own time, so the record's date is not used.
class NSLogHandler final : public LogHandlerProtocol {
 public:
  void logWithLevel(LogLevel level, LogDate date, std::string_view text) override;
};

}  // namespace velum
