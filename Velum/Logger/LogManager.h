#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Base/Progress.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Logger/LogSaving.h"

namespace velum {

class FileLogManager;

/// Saving of the program's logs, as the parts of the library that need it see it. A program
/// without a log of its own takes the defaults: they log "Do nothing" and yield nothing.
class LogManagerProtocol {
 public:
  LogManagerProtocol() = default;
  LogManagerProtocol(const LogManagerProtocol&) = delete;
  LogManagerProtocol& operator=(const LogManagerProtocol&) = delete;
  virtual ~LogManagerProtocol() = default;

  /// See FileLogManager::saveLogs.
  virtual std::vector<std::string> saveLogs(const LogSubsystemSelector& selector,
                                            const std::string& folder, const LogSavingOpts& opts,
                                            const Progress* progress);
  /// See FileLogManager::resetLog.
  virtual void resetLog();
  /// See FileLogManager::holds.
  virtual bool holds(const std::string& path) const;
};

/// The process's log manager: fronts the log file it is told of. Thread-safe.
class LogManager final : public LogManagerProtocol {
 public:
  static LogManager& shared();

  /// The live log file; until it is set, the defaults of the protocol hold.
  void setLogPath(std::string logPath);

  std::vector<std::string> saveLogs(const LogSubsystemSelector& selector, const std::string& folder,
                                    const LogSavingOpts& opts,
                                    const Progress* progress = nullptr) override;
  void resetLog() override;
  bool holds(const std::string& path) const override;

 private:
  std::shared_ptr<FileLogManager> files() const;

  mutable ForkSafeLock lock_{ForkSafeLock::Stage::leaf};
  std::shared_ptr<FileLogManager> files_;
};

}  // namespace velum
