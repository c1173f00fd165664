#include "vpn_relauncher/LastErrorLogHandler.h"

#include <string>

namespace velum {

void LastErrorLogHandler::logWithLevel(LogLevel level, LogDate /*date*/, std::string_view text) {
  if (level != LogLevel::error) return;
  defaults_.setObject(key, PropertyList(std::string(text)));
}

}  // namespace velum
