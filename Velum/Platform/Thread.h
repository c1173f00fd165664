#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>

namespace velum {

/// The kernel's id of the calling thread, as it stands in log records (32 bits on every system we
/// know). Cached per thread, also right in a forked child. Never 0.
std::uint32_t currentThreadId() noexcept;

/// The process's id, cached and right in a forked child.
std::int32_t currentProcessId() noexcept;

/// Starts a thread of the library's own, which nobody joins; `name` has at most 15 characters.
/// All signals are blocked in it and in the threads it starts: they belong to the program's own
/// threads. Returns 0, or the POSIX code why the system gives none.
int startThread(const char* name, std::function<void()> body) noexcept;

/// Calls `function(argument)` when the calling thread ends, after what was asked for later. While
/// a thread ends it can still be asked for: it is called then, too.
void atThreadExit(void (*function)(void*), void* argument) noexcept;

/// Blocks while `word` holds `value`, until its address is woken or `deadline` comes. Spins briefly
/// before it sleeps. May return for no reason, so the caller looks again.
void waitOnAddress(const std::atomic<std::int32_t>& word, std::int32_t value,
                   std::chrono::steady_clock::time_point deadline =
                       std::chrono::steady_clock::time_point::max()) noexcept;

/// Wake one, or all, of the threads that wait on `address`. Nothing is read there, so what stood
/// there may be gone by now; a thread that waits for something else there only looks again.
void wakeOneAt(const void* address) noexcept;
void wakeAllAt(const void* address) noexcept;

}  // namespace velum
