#pragma once

#include <fmt/core.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Logger/LogHandler.h"
#include "Velum/Logger/LogLevel.h"

namespace velum {

/// The place of a call, taken by a default argument. (clang 14 has no std::source_location.)
struct CallPlace {
  const char* file;
  unsigned line;

  static constexpr CallPlace current(const char* file = __builtin_FILE(),
                                     unsigned line = __builtin_LINE()) noexcept {
    return {file, line};
  }
};

/// Where a log call stands. `file` may carry folders and an extension; records show neither.
/// `function` is the routine's full name as messages give it: "loadObject(key:service:)".
struct LogSite {
  constexpr LogSite(std::string_view file_, std::string_view function_,
                    CallPlace where = CallPlace::current()) noexcept
      : file(file_), function(function_), line(where.line) {}
  /// Names the source file of the call itself.
  constexpr LogSite(std::string_view function_, CallPlace where = CallPlace::current()) noexcept
      : LogSite(where.file, function_, where) {}

  std::string_view file;
  std::string_view function;
  unsigned line;
};

/// The process's logger: drops records below its level, builds one text for the others and hands
/// it to every handler in order.
///
/// Log with the free functions below: `logInfo({"loadObject(key:)"}, "Loaded {} bytes", size)`.
/// A call that is filtered out costs one relaxed load and a compare; nothing is formatted.
///
/// Thread-safe, the setters included: a record in flight goes to the list it began with.
class Logger {
 public:
  using Handlers = std::vector<std::shared_ptr<LogHandlerProtocol>>;

  /// Passes info and worse to one NSLogHandler until told otherwise.
  constexpr Logger() noexcept = default;
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;
  ~Logger();

  /// The process's own logger. Never destroyed, so that records can be written until the end.
  static Logger& shared() noexcept;

  LogLevel logLevel() const noexcept { return logLevel_.load(std::memory_order_relaxed); }
  void setLogLevel(LogLevel level) noexcept { logLevel_.store(level, std::memory_order_relaxed); }
  bool passes(LogLevel level) const noexcept { return level >= logLevel(); }

  Handlers handlers() const;
  /// Replaces the whole list.
  void setHandlers(Handlers handlers);

  /// Logs what `message()` returns (anything that converts to a string view); it is called only
  /// when the record passes. `line` is not shown.
  template <class Message>
  void log(LogLevel level, Message&& message, std::string_view file, std::string_view function,
           unsigned line) {
    if (!passes(level)) return;
    const LogDate date = std::chrono::system_clock::now();  // before the message is built
    deliver(level, date, std::forward<Message>(message)(), {file, function});
    static_cast<void>(line);
  }

  /// The entry for callers that hold a raw level and a finished text, such as bindings of other
  /// languages. Same record as `log`. A level outside 0 to 4 stops the process.
  void objcLog(int rawLevel, std::string_view text, std::string_view file,
               std::string_view function, unsigned line);

 private:
  struct State;

  void deliver(LogLevel level, LogDate date, std::string_view message, const LogSite& site);
  State& state() const;

  std::atomic<LogLevel> logLevel_{LogLevel::info};
  mutable std::atomic<State*> state_{nullptr};  // owned; made by the first record or setter
};

namespace detail {
// Constant-initialised, so that asking for it needs no guard and the level check stays one load.
// The union keeps the destructor from running: records may come until the very end.
union SharedLogger {
  constexpr SharedLogger() noexcept : logger() {}
  SharedLogger(const SharedLogger&) = delete;
  SharedLogger& operator=(const SharedLogger&) = delete;
  ~SharedLogger() {}  // NOLINT(modernize-use-equals-default): deleted otherwise
  Logger logger;
};
extern SharedLogger sharedLogger;

void logFormatted(LogLevel level, std::string_view file, std::string_view function, unsigned line,
                  fmt::string_view format, fmt::format_args arguments);
}  // namespace detail

inline Logger& Logger::shared() noexcept {
  return detail::sharedLogger.logger;
}

/// Logs a formatted message on the shared logger. Formatting, and nothing else, is deferred:
/// arguments are evaluated by the caller, so compute costly ones under `Logger::passes`.
template <class... Arguments>
inline void log(LogLevel level, const LogSite& site, fmt::format_string<Arguments...> format,
                Arguments&&... arguments) {
  if (!Logger::shared().passes(level)) [[likely]] {
    return;
  }
  // The place goes in parts: handed on as a whole, it would be stored before the level is checked.
  detail::logFormatted(level, {site.file.data(), site.file.size()},
                       {site.function.data(), site.function.size()}, site.line, format,
                       fmt::make_format_args(arguments...));
}

template <class... Arguments>
inline void logVerbose(const LogSite& site, fmt::format_string<Arguments...> format,
                       Arguments&&... arguments) {
  log(LogLevel::verbose, site, format, std::forward<Arguments>(arguments)...);
}
template <class... Arguments>
inline void logDebug(const LogSite& site, fmt::format_string<Arguments...> format,
                     Arguments&&... arguments) {
  log(LogLevel::debug, site, format, std::forward<Arguments>(arguments)...);
}
template <class... Arguments>
inline void logInfo(const LogSite& site, fmt::format_string<Arguments...> format,
                    Arguments&&... arguments) {
  log(LogLevel::info, site, format, std::forward<Arguments>(arguments)...);
}
template <class... Arguments>
inline void logWarning(const LogSite& site, fmt::format_string<Arguments...> format,
                       Arguments&&... arguments) {
  log(LogLevel::warning, site, format, std::forward<Arguments>(arguments)...);
}
template <class... Arguments>
inline void logError(const LogSite& site, fmt::format_string<Arguments...> format,
                     Arguments&&... arguments) {
  log(LogLevel::error, site, format, std::forward<Arguments>(arguments)...);
}

/// Logs "TRACE LINE " and the caller's line number at level debug.
inline void logTrace(const LogSite& site) {
  logDebug(site, "TRACE LINE {}", site.line);
}

}  // namespace velum
