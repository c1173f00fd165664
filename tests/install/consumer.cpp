// Uses the installed library as a stranger would. all_headers.h includes every installed header.
#include <memory>

#include "Velum/Logger/Handlers/StdoutLogHandler.h"
#include "Velum/IPCDarwinMessage.h"
#include "Velum/Logger/Logger.h"
#include "all_headers.h"

int main() {
  velum::IPCDarwinMessageConfig::install({.prefix = "com.example.consumer"});
  auto& logger = velum::Logger::shared();
  logger.setHandlers({std::make_shared<velum::StdoutLogHandler>()});
  velum::logInfo({"main()"}, "Linked against {}", "Velum");
}
