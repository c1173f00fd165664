#pragma once

#include <string>

#include "Velum/Logger/Logger.h"
#include "vpn_relauncher/Locations.h"

namespace velum {

/// Decides where this program's records go.
class LogConfig {
 public:
  /// Gives `logger` two handlers in place of what it had: the log file of `subsystem`, which is
  /// the shared one for the privileged tool and the group's for all others, then the system log.
  /// The level stays. Without a folder for the file, the system log alone gets the records.
  /// Call it on the main thread before anything else logs.
  static void setUp(const std::string& subsystem, Logger& logger = Logger::shared(),
                    Locations& locations = Locations::shared());
};

}  // namespace velum
