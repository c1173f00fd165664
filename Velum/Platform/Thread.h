#pragma once

#include <cstdint>

namespace velum {

/// The kernel's id of the calling thread, as it stands in log records (32 bits on every system we
/// know; a Mach port name on macOS, gettid(2) on Linux). Cached per thread, also right in a
/// forked child. Never 0.
std::uint32_t currentThreadId() noexcept;

/// The process's id, cached and right in a forked child.
std::int32_t currentProcessId() noexcept;

}  // namespace velum
