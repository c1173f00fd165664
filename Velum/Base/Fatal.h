#pragma once

#include <string_view>

namespace velum {

/// Stops the process at once: writes `text` as one line to standard error and aborts.
/// For programming errors and for the few inputs whose only right answer is a crash that shows
/// up in crash reports. Runs no destructor and no exit handler. Safe on any thread.
[[noreturn]] void fatal(std::string_view text) noexcept;

}  // namespace velum
