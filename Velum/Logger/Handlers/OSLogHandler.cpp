#include "Velum/Logger/Handlers/OSLogHandler.h"

namespace velum {
namespace {

SystemLog::Type systemLogType(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::verbose:
    case LogLevel::debug:
    case LogLevel::info:
      return SystemLog::Type::normal;
    case LogLevel::warning:
      return SystemLog::Type::error;
    case LogLevel::error:
      break;
  }
  return SystemLog::Type::fault;
}

}  // namespace

OSLogHandler::OSLogHandler(const std::string& subsystem, const std::optional<std::string>& category)
    : OSLogHandler(SystemLog::open(subsystem, category.value_or(std::string(defaultCategory)))) {}

void OSLogHandler::logWithLevel(LogLevel level, LogDate /*date*/, std::string_view text) {
  log_->write(systemLogType(level), text);
}

}  // namespace velum
