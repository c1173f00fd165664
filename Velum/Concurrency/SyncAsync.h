#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "Velum/Platform/Dispatch.h"

namespace velum {

/// How a synchronous wait ended: with a value, with the error the work threw, or with neither
/// because the time ran out. `Value` may be void.
template <class Value>
class SyncResult {
 public:
  using Stored = std::conditional_t<std::is_void_v<Value>, std::monostate, Value>;

  static SyncResult success(Stored value) { return SyncResult(Ending(std::move(value))); }
  static SyncResult failure(std::exception_ptr error) { return SyncResult(Ending(error)); }
  static SyncResult timeOut() { return SyncResult(Ending(TimedOut{})); }

  bool hasValue() const noexcept { return std::holds_alternative<Stored>(ending_); }
  bool timedOut() const noexcept { return std::holds_alternative<TimedOut>(ending_); }
  /// The error of the work; null for a value or a time-out.
  std::exception_ptr error() const noexcept {
    const auto* error = std::get_if<std::exception_ptr>(&ending_);
    return error != nullptr ? *error : nullptr;
  }

  /// The value; throws the work's error, or std::runtime_error "timed out".
  Value get() && {
    if (auto thrown = error()) std::rethrow_exception(thrown);
    if (timedOut()) throw std::runtime_error("timed out");
    if constexpr (!std::is_void_v<Value>) return std::get<Stored>(std::move(ending_));
  }

 private:
  struct TimedOut {};
  using Ending = std::variant<TimedOut, std::exception_ptr, Stored>;

  explicit SyncResult(Ending ending) : ending_(std::move(ending)) {}

  Ending ending_;
};

/// Runs work on a serial queue of its own, and lets callers wait for work that runs elsewhere.
///
/// Never wait on a thread that the work itself needs, such as the main thread for work that hops
/// to the main queue: without a time-out that wait has no end.
class SyncAsync {
 public:
  using Timeout = std::optional<std::chrono::nanoseconds>;

  explicit SyncAsync(std::string label);

  /// Hands `work` to the queue.
  void async(Work work);
  /// Blocks until all work handed in so far has run; false when `timeout` passed first.
  bool wait(Timeout timeout = std::nullopt);

  /// One piece of work that a caller waits for. Runs on a thread of the global queue. The body of
  /// a SerialJob must not throw; SerialThrowingJob hands the error to the waiting caller.
  template <class Value>
  class SerialThrowingJob {
   public:
    explicit SerialThrowingJob(std::function<Value()> body) : body_(std::move(body)) {}

    /// Runs the body and returns its value, or throws what it threw.
    Value run() const { return run(std::nullopt).get(); }

    /// The same, but gives up waiting after `timeout`. The body then runs on by itself, and what
    /// it returns is dropped; it must not refer to what the caller may destroy.
    SyncResult<Value> run(Timeout timeout) const {
      const auto result = std::make_shared<std::optional<SyncResult<Value>>>();
      DispatchGroup job;
      job.async(DispatchQueue::global(), [result, body = body_] { result->emplace(ending(body)); });
      if (!job.wait(timeout.value_or(std::chrono::nanoseconds::max()))) {
        return SyncResult<Value>::timeOut();
      }
      return std::move(**result);
    }

   private:
    static SyncResult<Value> ending(const std::function<Value()>& body) try {
      if constexpr (std::is_void_v<Value>) {
        body();
        return SyncResult<Value>::success({});
      } else {
        return SyncResult<Value>::success(body());
      }
    } catch (...) {
      return SyncResult<Value>::failure(std::current_exception());
    }

    std::function<Value()> body_;
  };

  template <class Value>
  class SerialJob {
   public:
    explicit SerialJob(std::function<Value()> body)
        : job_([body = std::move(body)]() noexcept { return body(); }) {}

    Value run() const { return job_.run(); }
    SyncResult<Value> run(Timeout timeout) const { return job_.run(timeout); }

   private:
    SerialThrowingJob<Value> job_;
  };

 private:
  std::shared_ptr<DispatchQueue> queue_;
  DispatchGroup group_;
};

}  // namespace velum
