#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Velum/Logger/LogHandler.h"
#include "Velum/Platform/SystemLog.h"

namespace velum {

/// Sends records to the machine's system log. Warnings become errors there and errors faults, all
/// others the default type: the system log drops its own debug and info types early, and these
/// records must survive until support asks for them.
class OSLogHandler final : public LogHandlerProtocol {
 public:
  explicit OSLogHandler(const std::string& subsystem,
                        const std::optional<std::string>& category = std::nullopt);
  /// Writes to `log`, an already open handle.
  explicit OSLogHandler(std::shared_ptr<SystemLog> log) : log_(std::move(log)) {}

  void logWithLevel(LogLevel level, LogDate date, std::string_view text) override;

  static constexpr std::string_view defaultCategory = "main";

 private:
  std::shared_ptr<SystemLog> log_;
};

}  // namespace velum
