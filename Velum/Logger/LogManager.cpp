#include "Velum/Logger/LogManager.h"

#include <mutex>

#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Logger/FileLogManager.h"
#include "Velum/Logger/Logger.h"

namespace velum {

std::vector<std::string> LogManagerProtocol::saveLogs(const LogSubsystemSelector& /*selector*/,
                                                      const std::string& /*folder*/,
                                                      const LogSavingOpts& /*opts*/,
                                                      const Progress* /*progress*/) {
  logInfo({"saveLogs(selecting:inFolder:opts:)"}, "Do nothing");
  return {};
}

void LogManagerProtocol::resetLog() {
  logInfo({"resetLog()"}, "Do nothing");
}

bool LogManagerProtocol::holds(const std::string& /*path*/) const {
  return false;
}

LogManager& LogManager::shared() {
  static NeverDestroyed<LogManager> instance;
  return *instance;
}

void LogManager::setLogPath(std::string logPath) {
  auto files = std::make_shared<FileLogManager>(std::move(logPath));
  const std::lock_guard guard(lock_);
  files_.swap(files);
}

std::shared_ptr<FileLogManager> LogManager::files() const {
  const std::lock_guard guard(lock_);
  return files_;
}

std::vector<std::string> LogManager::saveLogs(const LogSubsystemSelector& selector,
                                              const std::string& folder, const LogSavingOpts& opts,
                                              const Progress* progress) {
  const auto files = this->files();
  return files ? files->saveLogs(selector, folder, opts, progress)
               : LogManagerProtocol::saveLogs(selector, folder, opts, progress);
}

void LogManager::resetLog() {
  if (const auto files = this->files()) {
    files->resetLog();
  } else {
    LogManagerProtocol::resetLog();
  }
}

bool LogManager::holds(const std::string& path) const {
  const auto files = this->files();
  return files && files->holds(path);
}

}  // namespace velum
