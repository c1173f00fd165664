#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

namespace velum {

/// For the application: starts the helper that will open the bundle at `bundlePath` again once
/// this process has ended. Returns the helper's process id when the helper has armed its watch,
/// so that the application may end, or be killed, at any moment from then on.
///
/// The helper lives in a session of its own, inherits no descriptor and outlives this process; if
/// it ends earlier, it is reaped in the background. Blocks for some milliseconds. Throws
/// SystemError when the helper can't be started (the exec's code), ends before it is armed (EPIPE)
/// or is not armed in time (ETIMEDOUT); no helper is left then. Any thread.
pid_t startRelauncher(const std::string& helperPath, const std::string& bundlePath,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5));

/// For the helper, first thing in main(): takes the descriptor that `startRelauncher` passed in
/// the environment variable VELUM_READY_FD out of the environment, so that nothing else inherits
/// or sees it. A value that names no open pipe or socket is ignored. Not thread-safe.
void adoptReadyDescriptor() noexcept;

/// For the helper, once its watch is armed: lets `startRelauncher` return. Does nothing when
/// nobody waits, or waits no more. Call once, on the thread that adopted.
void reportReady() noexcept;

}  // namespace velum
