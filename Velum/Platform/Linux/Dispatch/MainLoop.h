#pragma once

namespace velum {

/// Runs the main queue's work on the calling thread, for ever.
[[noreturn]] void runMainLoop();

}  // namespace velum
