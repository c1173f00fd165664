#pragma once

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
  /// 0 to 1.
  double fractionCompleted() const noexcept {
    return total_ <= 0 ? 1.0
                       : static_cast<double>(completedUnitCount()) / static_cast<double>(total_);
  }

  /// Asks the work to stop. It does so at its next step; work that is at its end completes.
  void cancel() noexcept { isCancelled_.store(true); }
  bool isCancelled() const noexcept { return isCancelled_.load(); }

  /// For the one who works.
  void completeUnit() noexcept { completed_.fetch_add(1); }
  void complete() noexcept { completed_.store(total_); }

 private:
  const std::int64_t total_;
  std::atomic<std::int64_t> completed_{0};
  std::atomic<bool> isCancelled_{false};
};

}  // namespace velum
