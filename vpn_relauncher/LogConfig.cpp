#include "vpn_relauncher/LogConfig.h"

#include <memory>

#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/Handlers/OSLogHandler.h"

namespace velum {

void LogConfig::setUp(const std::string& subsystem, Logger& logger, Locations& locations) {
  const std::string& path = subsystem == tunnelAgentSubsystem ? locations.sharedLogFilePath()
                                                              : locations.groupLogFilePath();
  logger.setHandlers(
      {FileLogHandler::create(subsystem, path, true), std::make_shared<OSLogHandler>(subsystem)});
}

}  // namespace velum
