#pragma once

#include <string_view>

namespace velum {

/// Writes one line to the process's console (NSLog on macOS, standard error on Linux): local date
/// and time, program name, process and thread id, then `text` as it stands. One system call, so
/// lines of several threads do not mix. Failures are ignored.
void consoleLog(std::string_view text) noexcept;

}  // namespace velum
