#include "bench/support/Table.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench {
namespace {

std::string duration(double nanoseconds) {
  if (nanoseconds < 100) return fmt::format("{:.2f} ns", nanoseconds);
  if (nanoseconds < 1e4) return fmt::format("{:.0f} ns", nanoseconds);
  if (nanoseconds < 1e6) return fmt::format("{:.1f} us", nanoseconds / 1e3);
  return fmt::format("{:.2f} ms", nanoseconds / 1e6);
}

void line(std::string_view what, std::string_view measured, std::string_view against,
          std::string_view ratio, std::string_view goal, std::string_view verdict) {
  fmt::print("{:<46} | {:>9} | {:<42} | {:<22} | {:<9} | {}\n", what, measured, against, ratio,
             goal, verdict);
  std::fflush(stdout);  // a table that is read while it grows
}

}  // namespace

std::vector<Times> interleaved(int rounds, std::initializer_list<Run> contenders) {
  std::vector<Times> times(contenders.size());
  for (int round = -1; round < rounds; ++round) {
    std::size_t index = 0;
    for (const Run& run : contenders) {
      const double time = run();
      if (round >= 0) times[index].push_back(time);
      ++index;
    }
  }
  return times;
}

double quantile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  const double place = share * static_cast<double>(values.size() - 1);
  const auto below = static_cast<std::size_t>(place);
  const auto above = std::min(below + 1, values.size() - 1);
  return std::lerp(values[below], values[above], place - static_cast<double>(below));
}

void report(std::string_view what, const Times& measured, std::string_view peer,
            const Times& against, Goal goal, double count) {
  std::vector<double> ratios(measured.size());
  std::transform(measured.begin(), measured.end(), against.begin(), ratios.begin(),
                 [](double a, double b) { return a / b; });
  const double ratio = quantile(ratios, 0.5);
  const bool hasGoal = goal.ratio > 0;
  line(what, duration(quantile(measured, 0.5) / count),
       fmt::format("{}: {}", peer, duration(quantile(against, 0.5) / count)),
       fmt::format("{:.3f} [{:.3f}..{:.3f}]", ratio, quantile(ratios, 0.1), quantile(ratios, 0.9)),
       hasGoal ? fmt::format("<= {:g}", goal.ratio) : "-",
       !hasGoal              ? "-"
       : ratio <= goal.ratio ? "yes"
                             : "NO");
}

void report(std::string_view what, std::string_view measured, std::string_view against,
            std::string_view goal, bool isMet) {
  line(what, measured, against, "-", goal, isMet ? "yes" : "NO");
}

}  // namespace bench
