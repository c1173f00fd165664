#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace velum {

/// What a wait of any given length, in any unit, really lasts at most: nobody can tell a hundred
/// years from for ever, and with more the sums on clocks overflow. A negative duration counts as
/// none, and so does what is no number.
template <class Rep, class Period>
constexpr std::chrono::nanoseconds bounded(std::chrono::duration<Rep, Period> duration) noexcept {
  constexpr std::chrono::hours longest(24 * 365 * 100);
  const std::chrono::duration<double> seconds(duration);
  if (!(seconds.count() > 0)) return std::chrono::nanoseconds::zero();
  if (seconds >= longest) return longest;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(duration);
}

/// The moment `duration` from now, on the clock that never jumps. Every deadline is made here.
template <class Rep, class Period>
std::chrono::steady_clock::time_point deadlineAfter(
    std::chrono::duration<Rep, Period> duration) noexcept {
  return std::chrono::steady_clock::now() + bounded(duration);
}

/// How long poll(2) may wait, rounded up; 0 when the deadline has passed. The next look at the
/// clock comes after 24 days at the latest.
inline int pollTimeout(std::chrono::steady_clock::time_point deadline) noexcept {
  const auto left = bounded(deadline - std::chrono::steady_clock::now());
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::min<std::chrono::milliseconds::rep>(milliseconds, INT_MAX));
}

}  // namespace velum
