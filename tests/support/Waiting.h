#pragma once

#include <chrono>
#include <thread>

namespace velum::test {

/// Long enough for a loaded machine under a sanitizer; only a failing test waits for it.
inline constexpr std::chrono::seconds deadline{30};

/// True as soon as `condition()` holds, false when it never does. For conditions no event tells of.
template <class Condition>
bool eventually(Condition condition, std::chrono::nanoseconds limit = deadline) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace velum::test
