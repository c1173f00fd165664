#include "Velum/Logger/Logger.h"

#include <fmt/format.h>

#include <mutex>
#include <utility>

#include "Velum/Base/Fatal.h"
#include "Velum/Base/String.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Logger/DeferredLog.h"
#include "Velum/Logger/Handlers/NSLogHandler.h"
#include "Velum/Logger/LogRecord.h"

namespace velum {

/// The handler list. Readers share it for the time of one record; setters replace it.
struct Logger::State {
  static std::shared_ptr<const Handlers> defaultHandlers() {
    return std::make_shared<const Handlers>(Handlers{std::make_shared<NSLogHandler>()});
  }

  std::shared_ptr<const Handlers> snapshot() const {
    const std::lock_guard guard(lock);
    return handlers;
  }

  // The first stage: a record that is written under any lock that fork takes would be out of order.
  mutable ForkSafeLock lock{ForkSafeLock::Stage::handler};
  std::shared_ptr<const Handlers> handlers = defaultHandlers();
};

namespace detail {

constinit SharedLogger sharedLogger;

void logFormatted(LogLevel level, std::string_view file, std::string_view function, unsigned line,
                  fmt::string_view format, fmt::format_args arguments) {
  Logger::shared().log(
      level, [&] { return fmt::vformat(format, arguments); }, file, function, line);
}

}  // namespace detail

Logger::~Logger() {
  delete state_.load(std::memory_order_acquire);
}

Logger::State& Logger::state() const {
  State* current = state_.load(std::memory_order_acquire);
  if (current != nullptr) return *current;
  auto fresh = std::make_unique<State>();
  if (state_.compare_exchange_strong(current, fresh.get(), std::memory_order_acq_rel)) {
    return *fresh.release();
  }
  return *current;  // another thread was first
}

Logger::Handlers Logger::handlers() const {
  return *state().snapshot();
}

void Logger::setHandlers(Handlers handlers) {
  auto replaced = std::make_shared<const Handlers>(std::move(handlers));
  State& current = state();
  const std::lock_guard guard(current.lock);
  current.handlers.swap(replaced);  // the old list goes after the lock
}

void Logger::deliver(LogLevel level, LogDate date, std::string_view message, const LogSite& site) {
  std::string text = makeRecordText(level, site.file, site.function, message);
  // Records are text. What came in as other bytes (a path, a tool's output) is made readable here,
  // once for all handlers, instead of being refused further down.
  if (!isValidUtf8(text)) text = repairedUtf8(text);
  auto handlers = state().snapshot();
  if (DeferredLog* const later = DeferredLog::ofThread()) {
    later->records_.push_back({std::move(handlers), level, date, std::move(text)});
    return;
  }
  for (const auto& handler : *handlers) handler->logWithLevel(level, date, text);
}

DeferredLog*& DeferredLog::ofThread() noexcept {
  static thread_local constinit DeferredLog* current = nullptr;
  return current;
}

DeferredLog::DeferredLog() noexcept
    : isOutermost_(ofThread() == nullptr), first_(isOutermost_ ? 0 : ofThread()->records_.size()) {
  if (isOutermost_) ofThread() = this;
}

void DeferredLog::dropRepetition(std::string& told) const {
  std::vector<Record>& records = ofThread()->records_;
  const auto first = records.begin() + static_cast<std::ptrdiff_t>(first_);
  std::string texts;
  for (auto record = first; record != records.end(); ++record) texts.append(record->text) += '\n';
  if (texts.empty()) return;
  if (texts == told) {
    records.erase(first, records.end());
  } else {
    told = std::move(texts);
  }
}

DeferredLog::~DeferredLog() {
  if (!isOutermost_) return;
  ofThread() = nullptr;
  for (const Record& record : records_) {
    for (const auto& handler : *record.handlers) {
      handler->logWithLevel(record.level, record.date, record.text);
    }
  }
}

void Logger::objcLog(int rawLevel, std::string_view text, std::string_view file,
                     std::string_view function, unsigned line) {
  const auto level = velum::logLevel(rawLevel);
  if (!level) fatal("Logger: log level out of range: " + std::to_string(rawLevel));
  log(
      *level, [text] { return text; }, file, function, line);
}

namespace {

// The shared logger's list registers itself for fork. Made when the program starts, because the
// first record may come while its caller holds a lock.
[[maybe_unused]] const bool isSharedLoggerReady = !Logger::shared().handlers().empty();

}  // namespace

}  // namespace velum
