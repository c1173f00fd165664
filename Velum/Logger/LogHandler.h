#pragma once

#include <chrono>
#include <string_view>

#include "Velum/Logger/LogLevel.h"

namespace velum {

/// A moment of the wall clock, as log records carry it.
using LogDate = std::chrono::system_clock::time_point;

/// Where the logger's records go. Called from any thread, from several at once; reports no failure.
class LogHandlerProtocol {
 public:
  LogHandlerProtocol() = default;
  LogHandlerProtocol(const LogHandlerProtocol&) = delete;
  LogHandlerProtocol& operator=(const LogHandlerProtocol&) = delete;
  virtual ~LogHandlerProtocol() = default;

  /// `text` is the finished record: letter, tag and message, in UTF-8.
  virtual void logWithLevel(LogLevel level, LogDate date, std::string_view text) = 0;
};

}  // namespace velum
