#pragma once

#include <string_view>

namespace velum {

/// Writes one line to the process's console: local date and time, program name, process and
/// thread id, then `text` as it stands. One that fits into 4 KiB is one system call, so that lines
/// of several threads do not mix. Failures are ignored, and what a console does not take within 100
/// ms is lost: a stopped terminal holds up nobody.
void consoleLog(std::string_view text) noexcept;

}  // namespace velum
