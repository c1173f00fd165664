#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Platform/SystemLog.h"
#include "tests/support/Waiting.h"

namespace velum::test {

/// Keeps what is written to the system log. `onWrite` runs inside the writer's call, with whatever
/// locks the writer holds.
class RecordingSystemLog final : public SystemLog {
 public:
  using Entry = std::pair<Type, std::string>;

  explicit RecordingSystemLog(std::function<void(std::string_view)> onWrite = {})
      : onWrite_(std::move(onWrite)) {}

  void write(Type type, std::string_view text) noexcept override {
    {
      const std::lock_guard guard(mutex_);
      entries_.emplace_back(type, text);
    }
    if (onWrite_) onWrite_(text);
  }

  std::vector<Entry> entries() const {
    const std::lock_guard guard(mutex_);
    return entries_;
  }
  long count(const std::string& text, Type type = Type::normal) const {
    const std::lock_guard guard(mutex_);
    return std::count(entries_.begin(), entries_.end(), Entry(type, text));
  }
  /// True when `text` was written `times` times or more before the deadline.
  bool waitFor(const std::string& text, Type type = Type::normal, long times = 1) const {
    return eventually([&] { return count(text, type) >= times; });
  }

 private:
  std::function<void(std::string_view)> onWrite_;
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

}  // namespace velum::test
