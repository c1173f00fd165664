#pragma once

#include <cstdint>
#include <functional>

namespace velum {

/// The kernel's id of the calling thread, as it stands in log records (32 bits on every system we
/// know; a Mach port name on macOS, gettid(2) on Linux). Cached per thread, also right in a
/// forked child. Never 0.
std::uint32_t currentThreadId() noexcept;

/// The process's id, cached and right in a forked child.
std::int32_t currentProcessId() noexcept;

/// Starts a thread of the library's own, which nobody joins; `name` has at most 15 characters.
/// All signals are blocked in it and in the threads it starts: they belong to the program's own
/// threads. Returns 0, or the POSIX code why the system gives none.
int startThread(const char* name, std::function<void()> body);

}  // namespace velum
