#include "Velum/Platform/ConsoleLog.h"

#include <fmt/format.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>
#include <string>

#include "Velum/Logger/LogRecord.h"
#include "Velum/Platform/Thread.h"

namespace velum {

void consoleLog(std::string_view text) noexcept {
  std::string head;
  try {
    appendLogDate(head, std::chrono::system_clock::now());
    fmt::format_to(std::back_inserter(head), " {}[{}:{:x}] ", ::program_invocation_short_name,
                   currentProcessId(), currentThreadId());
  } catch (...) {
    head.clear();  // out of memory: the bare text is better than nothing
  }
  char lineFeed = '\n';
  const std::array<iovec, 3> line{{
      {head.data(), head.size()},
      {const_cast<char*>(text.data()), text.size()},  // NOLINT(*-pro-type-const-cast): read only
      {&lineFeed, 1},
  }};
  [[maybe_unused]] const ssize_t written =
      ::writev(STDERR_FILENO, line.data(), static_cast<int>(line.size()));
}

}  // namespace velum
