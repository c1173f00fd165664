#include "Velum/Logger/Handlers/NSLogHandler.h"

#include "Velum/Platform/ConsoleLog.h"

namespace velum {

void NSLogHandler::logWithLevel(LogLevel /*level*/, LogDate /*date*/, std::string_view text) {
  consoleLog(text);
}

}  // namespace velum
