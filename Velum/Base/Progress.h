#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace velum {

/// How far a piece of work is, and the wish that it stop. Shared between the one who works and any
/// number of observers; every operation may be called from any thread and never blocks.
class Progress {
 public:
  explicit Progress(std::int64_t totalUnitCount) noexcept : total_(totalUnitCount) {}

  std::int64_t totalUnitCount() const noexcept { return total_; }
  std::int64_t completedUnitCount() const noexcept { return completed_.load(); }
  /// 0 to 1; what is done of the current unit counts.
  double fractionCompleted() const noexcept {
    const double done = static_cast<double>(completedUnitCount()) + partOfUnit_.load();
    return total_ <= 0 ? 1.0 : std::min(done / static_cast<double>(total_), 1.0);
  }

  /// Asks the work to stop. It does so at its next step; work that is at its end completes.
  void cancel() noexcept { isCancelled_.store(true); }
  bool isCancelled() const noexcept { return isCancelled_.load(); }

  /// For the one who works.
  void completeUnit() noexcept {
    partOfUnit_.store(0);
    completed_.fetch_add(1);
  }
  /// How much of the current unit is done, 0 to 1.
  void setPartOfUnit(double part) noexcept { partOfUnit_.store(std::clamp(part, 0.0, 1.0)); }
  void complete() noexcept {
    partOfUnit_.store(0);
    completed_.store(total_);
  }

 private:
  const std::int64_t total_;
  std::atomic<std::int64_t> completed_{0};
  std::atomic<double> partOfUnit_{0};
  std::atomic<bool> isCancelled_{false};
};

}  // namespace velum
