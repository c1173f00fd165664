#pragma once

#include <chrono>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

/// Times of one contender, in nanoseconds, a round each.
using Times = std::vector<double>;

/// One timed run of a contender: prepares, measures, cleans up, and returns only the nanoseconds
/// that count.
using Run = std::function<double()>;

/// Nanoseconds that `work` takes.
template <class Work>
double timed(Work work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

/// Runs the contenders in turn, A B C A B C ..., so that a change in the machine's load hits all of
/// them alike. A first round is run and forgotten. Returns the times in the contenders' order.
std::vector<Times> interleaved(int rounds, std::initializer_list<Run> contenders);

/// The value below which `share` (0 to 1) of the `values` lie.
double quantile(std::vector<double> values, double share);

/// The most that measured / against may be; no goal when 0.
struct Goal {
  double ratio = 0;
};

/// Prints a line of the table: medians of both, the median of their ratios round by round with the
/// 10th and 90th percentile, the goal and whether the median meets it. The times are divided by
/// `count`, the operations of a run.
void report(std::string_view what, const Times& measured, std::string_view peer,
            const Times& against, Goal goal = {}, double count = 1);

/// A line about a value that is not a time.
void report(std::string_view what, std::string_view measured, std::string_view against,
            std::string_view goal, bool isMet);

}  // namespace bench
