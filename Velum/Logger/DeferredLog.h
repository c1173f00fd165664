#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Velum/Logger/Logger.h"

namespace velum {

/// Keeps the records that the calling thread logs until the end of the scope, and then hands them
/// on, with the dates they had, to the handlers of their time. Declared before a lock that is held
/// while others' code runs: a log handler is anybody's code and may want that very lock. Inside of
/// another one it leaves the records to that one.
class DeferredLog {
 public:
  DeferredLog() noexcept;
  DeferredLog(const DeferredLog&) = delete;
  DeferredLog& operator=(const DeferredLog&) = delete;
  ~DeferredLog();

  /// Drops the records that were kept since this object was made, if their texts are those in
  /// `told`; else `told` gets them. For what goes wrong in the same way at every look. Without
  /// records nothing happens.
  void dropRepetition(std::string& told) const;

 private:
  friend class Logger;
  struct Record {
    std::shared_ptr<const Logger::Handlers> handlers;
    LogLevel level;
    LogDate date;
    std::string text;
  };

  /// The one that the calling thread's records go to; null when they go to the handlers.
  static DeferredLog*& ofThread() noexcept;

  bool isOutermost_;
  std::size_t first_;  // this one's, among the records of the outermost
  std::vector<Record> records_;
};

}  // namespace velum
