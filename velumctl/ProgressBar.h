#pragma once

#include <chrono>
#include <future>

namespace velumctl {

/// Draws a bar on standard error, where it does not mix with the result, as wide as the terminal
/// allows; `done` is 0 to 1.
void drawBar(double done);
/// Removes it.
void clearBar();

/// Waits until there is a result. On a terminal, a bar shows how far the work is: `fraction()`
/// gives 0 to 1.
template <class Result, class Fraction>
void waitWithBar(const std::future<Result>& result, bool isTerminal, Fraction fraction) {
  constexpr std::chrono::milliseconds frame(100);
  if (!isTerminal) {
    result.wait();
    return;
  }
  do {
    drawBar(fraction());
  } while (result.wait_for(frame) == std::future_status::timeout);
  clearBar();
}

}  // namespace velumctl
