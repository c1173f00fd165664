#pragma once

#include "Velum/Logger/LogHandler.h"
#include "Velum/Platform/UserDefaults.h"

namespace velum {

/// Keeps the text of the last error record in the user's defaults, under "LastError". Records of
/// other levels are ignored; a value that can't be written is lost.
class LastErrorLogHandler final : public LogHandlerProtocol {
 public:
  static constexpr std::string_view key = "LastError";

  /// `defaults` must outlive this object.
  explicit LastErrorLogHandler(UserDefaults& defaults = UserDefaults::standard())
      : defaults_(defaults) {}

  void logWithLevel(LogLevel level, LogDate date, std::string_view text) override;

 private:
  UserDefaults& defaults_;
};

}  // namespace velum
