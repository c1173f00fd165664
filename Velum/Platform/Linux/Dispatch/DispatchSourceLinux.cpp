#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <new>
#include <system_error>
#include <utility>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/Deadline.h"
#include "Velum/Base/Fatal.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Dispatch/QueueBase.h"

namespace velum {
namespace {

using Executor = asio::any_io_executor;

QueueBase& base(DispatchQueue& queue) {
  // Tests may put their own queue behind the interface; sources need a real one.
  auto* real = dynamic_cast<QueueBase*>(&queue);
  if (real == nullptr) fatal("DispatchSource: not a queue of this library");
  return *real;
}

/// What a source waits for, and its handler. Owned by the source and by the wait in flight; whoever
/// ends the source only marks it, and the wait that comes back sees the mark.
class SourceState : public std::enable_shared_from_this<SourceState> {
 public:
  SourceState(const SourceState&) = delete;
  SourceState& operator=(const SourceState&) = delete;
  virtual ~SourceState() = default;

  /// Waits for the next event, as long as the source lives.
  virtual void wait() = 0;

  void cancel() noexcept try {
    cancelled_.store(true, std::memory_order_release);
    asio::post(executor_, [self = shared_from_this()] { self->stopWaiting(); });
  } catch (const std::bad_alloc&) {
    // The wait goes on until its next event and then ends without a delivery.
  }

  /// For a forked child: the reactor belongs to the parent, which may have held its locks, so that
  /// nothing can be given back to it.
  virtual void keepForEver() noexcept { self_ = shared_from_this(); }

 protected:
  SourceState(QueueBase& queue, bool repeats, Work handler)
      : executor_(queue.sourceExecutor()),
        owner_(queue.weak_from_this().lock()),
        queue_(queue),
        repeats_(repeats),
        handler_(std::move(handler)) {}

  const Executor& executor() const noexcept { return executor_; }

  /// What is to run on the queue when the event came.
  auto delivery() {
    return [self = shared_from_this(),
            item = queue_.wrapped([this] { deliver(); })](const asio::error_code& error) {
      if (!error) item();
    };
  }

  virtual void stopWaiting() noexcept = 0;

  /// Whether what is waited for is there. A wait may come back without it: the reactor uses its
  /// records of descriptors again, and an event that it has fetched but not yet handed out goes to
  /// whoever got the record of a closed descriptor.
  virtual bool hasHappened() const noexcept = 0;

 private:
  bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }

  void deliver() {
    const bool happened = hasHappened();
    if (isCancelled()) return;  // asked last: only a cancelled source gives its descriptor back
    const unsigned generation = forkGeneration();
    if (happened) handler_();
    if (generation != forkGeneration()) return;  // the handler forked: the reactor is the parent's
    if ((repeats_ || !happened) && !isCancelled()) wait();
  }

  Executor executor_;
  std::shared_ptr<QueueBase> owner_;  // of the queue; nothing for the two that live for ever
  QueueBase& queue_;
  bool repeats_;
  Work handler_;
  std::atomic<bool> cancelled_{false};
  std::shared_ptr<SourceState> self_;
};

class ReadableState final : public SourceState {
 public:
  // A duplicate, because the reactor knows a descriptor only once and wants to close its own.
  ReadableState(UniqueFd duplicate, QueueBase& queue, bool repeats, Work handler)
      : SourceState(queue, repeats, std::move(handler)),
        descriptor_(duplicate.get()),
        stream_(executor()) {
    asio::error_code error;
    stream_.assign(duplicate.get(), error);
    if (error) throw SystemError(error.value(), "DispatchSource::readable");
    static_cast<void>(duplicate.release());
  }

  void wait() override {
    stream_.async_wait(asio::posix::stream_descriptor::wait_read, delivery());
  }

  void keepForEver() noexcept override {
    SourceState::keepForEver();
    ::close(stream_.native_handle());  // the child's copy, unknown to the parent's reactor
  }

 private:
  void stopWaiting() noexcept override {
    asio::error_code ignored;
    stream_.close(ignored);
  }

  bool hasHappened() const noexcept override {
    pollfd state{descriptor_, POLLIN, 0};
    return ::poll(&state, 1, 0) != 0;
  }

  int descriptor_;  // stream_'s
  asio::posix::stream_descriptor stream_;
};

class TimerState final : public SourceState {
 public:
  TimerState(std::chrono::nanoseconds delay, std::chrono::nanoseconds interval, QueueBase& queue,
             Work handler)
      : SourceState(queue, interval.count() > 0, std::move(handler)),
        timer_(executor()),
        delay_(delay),
        interval_(interval) {}

  void wait() override {
    timer_.expires_at(deadlineAfter(std::exchange(delay_, interval_)));
    timer_.async_wait(delivery());
  }

 private:
  // NOLINTNEXTLINE(bugprone-exception-escape): that of cancelling never comes
  void stopWaiting() noexcept override { timer_.cancel(); }

  bool hasHappened() const noexcept override { return true; }

  asio::steady_timer timer_;
  std::chrono::nanoseconds delay_;  // before the next call
  std::chrono::nanoseconds interval_;
};

class Source final : public DispatchSource {
 public:
  explicit Source(std::shared_ptr<SourceState> state)
      : state_(std::move(state)), generation_(forkGeneration()) {
    state_->wait();
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  ~Source() override {
    if (generation_ == forkGeneration()) {
      state_->cancel();
    } else {
      state_->keepForEver();
    }
  }

 private:
  std::shared_ptr<SourceState> state_;
  unsigned generation_;
};

// The first source of a process makes the reactor, with its descriptors, which may fail.
template <class State, class... Arguments>
std::unique_ptr<DispatchSource> makeSource(const char* caller, Arguments&&... arguments) try {
  return std::make_unique<Source>(std::make_shared<State>(std::forward<Arguments>(arguments)...));
} catch (const std::system_error& error) {
  throw SystemError(error.code().value(), caller);
}

UniqueFd duplicate(int descriptor) {
  UniqueFd copy(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!copy) {
    throw lastSystemError("DispatchSource::readable, fcntl (" + std::to_string(descriptor) + ")");
  }
  return copy;
}

UniqueFd openChild(int pid) {
  siginfo_t ignored{};
  if (::waitid(P_PID, static_cast<id_t>(pid), &ignored, WEXITED | WNOHANG | WNOWAIT) != 0) {
    throw lastSystemError("DispatchSource::childExit, waitid (" + std::to_string(pid) + ")");
  }
  return exitDescriptor(pid);
}

}  // namespace

std::unique_ptr<DispatchSource> DispatchSource::readable(int descriptor, DispatchQueue& queue,
                                                         Work handler) {
  return makeSource<ReadableState>("DispatchSource::readable", duplicate(descriptor), base(queue),
                                   true, std::move(handler));
}

std::unique_ptr<DispatchSource> DispatchSource::childExit(int pid, DispatchQueue& queue,
                                                          std::function<void(int)> handler) {
  // The id stays the child's until it is reaped, which happens nowhere but here.
  auto reap = [pid, handler = std::move(handler)] { handler(reapChild(pid)); };
  return makeSource<ReadableState>("DispatchSource::childExit", openChild(pid), base(queue), false,
                                   std::move(reap));
}

std::unique_ptr<DispatchSource> DispatchSource::timer(std::chrono::nanoseconds delay,
                                                      DispatchQueue& queue, Work handler,
                                                      std::chrono::nanoseconds interval) {
  return makeSource<TimerState>("DispatchSource::timer", delay, interval, base(queue),
                                std::move(handler));
}

}  // namespace velum
