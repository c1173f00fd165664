#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace velum {

/// A handle to the machine's system log for one subsystem and category. Thread-safe.
class SystemLog {
 public:
  /// The message types of the system log, mildest first.
  enum class Type : std::uint8_t { normal, error, fault };

  SystemLog() = default;
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  virtual ~SystemLog() = default;

  static std::shared_ptr<SystemLog> open(const std::string& subsystem, const std::string& category);

  /// Writes `text` as it stands, never as a format. Never waits: what the system log can't take at
  /// once, because there is none or it is behind with reading, is dropped; errors and faults go to
  /// the console instead (ConsoleLog.h).
  virtual void write(Type type, std::string_view text) noexcept = 0;
};

}  // namespace velum
