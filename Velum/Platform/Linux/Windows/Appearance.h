#pragma once

#include <chrono>

namespace velum {

/// Whether the user prefers dark windows: as the desktop's settings portal says, or, where it does
/// not answer within `timeout` or has no preference, as the name of the GTK theme does. Any thread.
bool prefersDark(std::chrono::microseconds timeout);

}  // namespace velum
