#include "Velum/Logger/Handlers/StdoutLogHandler.h"

#include <cstdio>
#include <string>

namespace velum {

void StdoutLogHandler::logWithLevel(LogLevel /*level*/, LogDate /*date*/, std::string_view text) {
  std::string line;
  line.reserve(text.size() + 1);
  line.append(text).append(1, '\n');
  // One call each: the stream's own lock keeps lines of several threads whole. A handler reports
  // no failure, and there is nobody else to tell that standard output is gone.
  static_cast<void>(std::fwrite(line.data(), 1, line.size(), stdout));
  static_cast<void>(std::fflush(stdout));
}

}  // namespace velum
