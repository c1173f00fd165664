#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "Velum/Logger/LogHandler.h"

namespace velum::test {

/// A log handler that keeps what it is given. Thread-safe.
class RecordingLogHandler final : public LogHandlerProtocol {
 public:
  struct Record {
    LogLevel level;
    LogDate date;
    std::string text;
  };

  void logWithLevel(LogLevel level, LogDate date, std::string_view text) override {
    const std::lock_guard guard(mutex_);
    records_.push_back({level, date, std::string(text)});
  }

  std::vector<Record> records() const {
    const std::lock_guard guard(mutex_);
    return records_;
  }

  std::vector<std::string> texts() const {
    std::vector<std::string> texts;
    for (auto& record : records()) texts.push_back(std::move(record.text));
    return texts;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Record> records_;
};

}  // namespace velum::test
