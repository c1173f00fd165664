#include "Velum/Platform/ConsoleLog.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <iterator>
#include <string>
#include <string_view>

#include "Velum/Logger/LogRecord.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

/// A terminal that was stopped, or a pipe that nobody reads, must not hold up the program. What
/// takes a write at all takes so much without waiting.
constexpr std::size_t mostAtOnce = PIPE_BUF;

/// Waits a moment for a reader that is slow, but not again for one that has not moved since.
bool isWritable() noexcept {
  constexpr int patience = 100;  // milliseconds
  static std::atomic<bool> isStuck{false};
  pollfd console{STDERR_FILENO, POLLOUT, 0};
  const bool isReady = ::poll(&console, 1, isStuck.load() ? 0 : patience) > 0;
  isStuck.store(!isReady);
  return isReady;
}

}  // namespace

void consoleLog(std::string_view text) noexcept {
  std::string head;
  try {
    appendLogDate(head, std::chrono::system_clock::now());
    fmt::format_to(std::back_inserter(head), " {}[{}:{:x}] ", ::program_invocation_short_name,
                   currentProcessId(), currentThreadId());
  } catch (...) {
    head.clear();  // out of memory: the bare text is better than nothing
  }
  // Lines of many processes mix, so that one which fits is written as one.
  std::array<std::string_view, 3> parts{head, text, "\n"};
  while (std::ranges::any_of(parts, [](std::string_view part) { return !part.empty(); })) {
    if (!isWritable()) return;
    std::array<iovec, 3> line{};
    std::size_t room = mostAtOnce;
    for (std::size_t i = 0; i < parts.size(); ++i) {
      const std::string_view piece = parts.at(i).substr(0, room);
      line.at(i) = {const_cast<char*>(piece.data()), piece.size()};  // NOLINT(*-const-cast)
      parts.at(i).remove_prefix(piece.size());
      room -= piece.size();
    }
    if (::writev(STDERR_FILENO, line.data(), static_cast<int>(line.size())) < 0) return;
  }
}

}  // namespace velum
