#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Velum/Logger/Logger.h"
#include "tests/support/RecordingLogHandler.h"

namespace velum::test {

/// All records of the shared logger, as long as the object lives.
class CapturedLog {
 public:
  CapturedLog()
      : oldLevel_(Logger::shared().logLevel()), oldHandlers_(Logger::shared().handlers()) {
    Logger::shared().setHandlers({handler_});
    Logger::shared().setLogLevel(LogLevel::verbose);
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;
  ~CapturedLog() {
    Logger::shared().setLogLevel(oldLevel_);
    Logger::shared().setHandlers(std::move(oldHandlers_));
  }

  std::vector<std::string> texts() const { return handler_->texts(); }
  /// How many records contain `text`.
  std::size_t count(std::string_view text) const {
    std::size_t found = 0;
    for (const auto& record : texts()) found += record.find(text) != std::string::npos ? 1 : 0;
    return found;
  }
  bool has(std::string_view text) const { return count(text) > 0; }

 private:
  std::shared_ptr<RecordingLogHandler> handler_ = std::make_shared<RecordingLogHandler>();
  LogLevel oldLevel_;
  Logger::Handlers oldHandlers_;
};

}  // namespace velum::test
