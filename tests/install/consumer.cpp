// Uses the installed library as a stranger would. all_headers.h includes every installed header.
#include <memory>

#include "Velum/AES.h"
#include "Velum/IPCDarwinMessage.h"
#include "Velum/Logger/Handlers/StdoutLogHandler.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/CodeIdentity.h"
#include "Velum/Telemetry.h"
#include "Velum/UIUtils.h"
#include "all_headers.h"

int main() {
  velum::IPCDarwinMessageConfig::install({.prefix = "com.example.consumer"});
  auto& logger = velum::Logger::shared();
  logger.setHandlers({std::make_shared<velum::StdoutLogHandler>()});
  static_cast<void>(velum::UIUtils::isDarkMode());
  const velum::SecretBytes key(32);
  const bool isLinked = velum::AES::decrypted(velum::AES::encrypted({}, key), key).empty() &&
                        velum::Telemetry::createSyntheticId("f") == "abaaaaaa" &&
                        !velum::CodeIdentity::shared().check(0, "nobody").valid;
  velum::logInfo({"main()"}, "Linked against {}", isLinked ? "Velum" : "something else");
}
