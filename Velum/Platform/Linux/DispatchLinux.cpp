#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/bind_executor.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#include "Velum/Fatal.h"
#include "Velum/Platform/AtFork.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/MainLoop.h"
#include "Velum/Platform/Posix/ChildIo.h"
#include "Velum/Platform/Posix/UniqueFd.h"
#include "Velum/Platform/Thread.h"
#include "Velum/SystemError.h"
#include "Velum/UnfairLock.h"

namespace velum {
namespace {

using Executor = asio::any_io_executor;

constexpr std::chrono::nanoseconds longestDelay = std::chrono::hours(24 * 365);

/// Runs one item of work; what escapes from it would otherwise unwind a thread of the pool.
void perform(const Work& work) noexcept {
  work();
}

/// The worker threads. The first starts with the first work. When an item keeps the last idle
/// thread busy, another one is added, so that work which blocks starves neither other work nor
/// timers and sources. Where the system gives no more threads, work waits for those there are.
class Pool {
 public:
  asio::io_context& context() noexcept { return context_; }

  /// Makes sure that there is a thread to poll for timers, sources and work.
  void provideThread() {
    if (threads_.load(std::memory_order_relaxed) == 0) addThreadWhenAllAreBusy();
  }

  /// `work` as a thread of the pool runs it.
  Work item(Work work) {
    return [this, work = std::move(work)] {
      const int busy = busy_.fetch_add(1) + 1;
      if (busy >= threads_.load(std::memory_order_relaxed)) addThreadWhenAllAreBusy();
      perform(work);
      busy_.fetch_sub(1, std::memory_order_relaxed);
    };
  }

  UnfairLock& growthLock() noexcept { return growth_; }

 private:
  static constexpr int maxThreads = 64;

  // Both numbers are read under the lock: a new thread may be busy before it is counted, and then
  // it is the one that comes here next.
  void addThreadWhenAllAreBusy() {
    const std::lock_guard guard(growth_);
    const int threads = threads_.load(std::memory_order_relaxed);
    if (threads > busy_.load() || threads == maxThreads) return;
    // The pool is never destroyed. Without a thread, the next work asks again.
    if (startThread("velum-worker", [this] { context_.run(); }) != 0) return;
    threads_.store(threads + 1, std::memory_order_relaxed);
  }

  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepsRunning_{context_.get_executor()};
  std::atomic<int> threads_{0};
  std::atomic<int> busy_{0};
  UnfairLock growth_;
};

struct MainContext {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> keepsRunning{context.get_executor()};
  std::atomic<std::uint32_t> thread{0};  // which one runs it; 0 for none so far
};

/// What of the machinery belongs to this process. A forked child gets new contexts: the threads
/// of the old ones are gone, and their locks may have been held. The old ones stay allocated.
class Runtime final : public ForkParticipant {
 public:
  static Runtime& shared() {
    static Runtime& instance = *new Runtime;  // NOLINT(*-owning-memory): never destroyed
    return instance;
  }

  Pool& pool() { return get(pool_); }
  MainContext& mainContext() { return get(main_); }

  void prepareFork() noexcept override {
    lock_.lock();
    if (Pool* pool = pool_.load(std::memory_order_relaxed)) pool->growthLock().lock();
  }
  void afterForkInParent() noexcept override {
    if (Pool* pool = pool_.load(std::memory_order_relaxed)) pool->growthLock().unlock();
    lock_.unlock();
  }
  void afterForkInChild() noexcept override {
    abandonedPool_ = pool_.exchange(nullptr, std::memory_order_relaxed);
    abandonedMain_ = main_.exchange(nullptr, std::memory_order_relaxed);
    lock_.resetAfterFork();
  }

 private:
  Runtime() : ForkParticipant(Stage::leaf) { registerForFork(); }

  template <class T>
  T& get(std::atomic<T*>& slot) {
    if (T* existing = slot.load(std::memory_order_acquire)) return *existing;
    const std::lock_guard guard(lock_);
    if (T* existing = slot.load(std::memory_order_relaxed)) return *existing;
    T* fresh = new T;  // NOLINT(*-owning-memory): never destroyed, threads use it until the end
    slot.store(fresh, std::memory_order_release);
    return *fresh;
  }

  UnfairLock lock_;
  std::atomic<Pool*> pool_{nullptr};
  std::atomic<MainContext*> main_{nullptr};
  // Kept reachable, so that leak checkers see what is deliberate.
  Pool* abandonedPool_ = nullptr;
  MainContext* abandonedMain_ = nullptr;
};

/// What sources and timers need to know of a queue beyond its public side.
class QueueBase : public DispatchQueue, public std::enable_shared_from_this<QueueBase> {
 public:
  explicit QueueBase(std::string label) : label_(std::move(label)) {}

  const std::string& label() const noexcept final { return label_; }

  void async(Work work) override { asio::post(executor(), wrapped(std::move(work))); }

  void asyncAfter(std::chrono::nanoseconds delay, Work work) override {
    const auto timer =
        std::make_shared<asio::steady_timer>(executor(), std::min(delay, longestDelay));
    timer->async_wait([timer, item = wrapped(std::move(work))](const asio::error_code& error) {
      if (!error) item();
    });
  }

  virtual Executor executor() = 0;
  /// Where a source of this queue waits and delivers: one delivery at a time.
  virtual Executor sourceExecutor() { return executor(); }
  /// `work` as the queue's threads run it; also provides for a thread.
  virtual Work wrapped(Work work) = 0;

 private:
  std::string label_;
};

class MainQueue final : public QueueBase {
 public:
  MainQueue() : QueueBase("main") {}
  Executor executor() override { return Runtime::shared().mainContext().context.get_executor(); }
  Work wrapped(Work work) override {
    return [work = std::move(work)] { perform(work); };
  }
};

class ConcurrentQueue final : public QueueBase {
 public:
  explicit ConcurrentQueue(std::string label) : QueueBase(std::move(label)) {}
  bool isConcurrent() const noexcept override { return true; }
  Executor executor() override { return Runtime::shared().pool().context().get_executor(); }
  Executor sourceExecutor() override {
    return asio::make_strand(Runtime::shared().pool().context());
  }
  Work wrapped(Work work) override {
    Pool& pool = Runtime::shared().pool();
    pool.provideThread();
    return pool.item(std::move(work));
  }
};

/// Keeps itself alive until its last work item ran.
class SerialQueue final : public QueueBase, public ForkParticipant {
 public:
  explicit SerialQueue(std::string label)
      : QueueBase(std::move(label)), ForkParticipant(Stage::dispatch) {
    Runtime::shared();  // registers itself, which must not happen under a lock
    registerForFork();
  }
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  ~SerialQueue() override {
    unregisterForFork();
    // The strand of a parent process is left alone: its locks may be held for ever.
    if (generation_ != forkGeneration()) static_cast<void>(strand_.release());
  }

  Executor executor() override {
    const std::lock_guard guard(lock_);
    if (!strand_ || generation_ != forkGeneration()) {
      static_cast<void>(strand_.release());
      strand_ = std::make_unique<Strand>(Runtime::shared().pool().context().get_executor());
      generation_ = forkGeneration();
    }
    return *strand_;
  }

  Work wrapped(Work work) override {
    Pool& pool = Runtime::shared().pool();
    pool.provideThread();
    return pool.item([self = shared_from_this(), work = std::move(work)] { work(); });
  }

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override { lock_.resetAfterFork(); }

 private:
  using Strand = asio::strand<asio::io_context::executor_type>;

  UnfairLock lock_;
  std::unique_ptr<Strand> strand_;
  unsigned generation_ = 0;
};

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

 private:
  bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }

  void deliver() {
    if (isCancelled()) return;
    handler_();
    if (repeats_ && !isCancelled()) wait();
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
      : SourceState(queue, repeats, std::move(handler)), stream_(executor()) {
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

  asio::posix::stream_descriptor stream_;
};

class TimerState final : public SourceState {
 public:
  TimerState(std::chrono::nanoseconds delay, std::chrono::nanoseconds interval, QueueBase& queue,
             Work handler)
      : SourceState(queue, interval > interval.zero(), std::move(handler)),
        timer_(executor()),
        delay_(delay),
        interval_(interval) {}

  void wait() override {
    timer_.expires_after(std::min(std::exchange(delay_, interval_), longestDelay));
    timer_.async_wait(delivery());
  }

 private:
  void stopWaiting() noexcept override {
    asio::error_code ignored;
    timer_.cancel(ignored);
  }

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

DispatchQueue& DispatchQueue::main() {
  static MainQueue& instance = *new MainQueue;  // NOLINT(*-owning-memory): never destroyed
  return instance;
}

bool DispatchQueue::isMain() noexcept {
  const std::uint32_t runner = Runtime::shared().mainContext().thread.load();
  const auto first = static_cast<std::uint32_t>(currentProcessId());
  return currentThreadId() == (runner != 0 ? runner : first);
}

DispatchQueue& DispatchQueue::global() {
  static ConcurrentQueue& instance =
      *new ConcurrentQueue("global");  // NOLINT(*-owning-memory): never destroyed
  return instance;
}

std::shared_ptr<DispatchQueue> DispatchQueue::serial(std::string label) {
  return std::make_shared<SerialQueue>(std::move(label));
}

std::shared_ptr<DispatchQueue> DispatchQueue::concurrent(std::string label) {
  return std::make_shared<ConcurrentQueue>(std::move(label));
}

void runMainLoop() {
  while (true) {
    MainContext& main = Runtime::shared().mainContext();
    main.thread.store(currentThreadId());
    main.context.run();
  }
}

struct DispatchGroup::State {
  std::mutex mutex;
  std::condition_variable empty;
  int inFlight = 0;
};

DispatchGroup::DispatchGroup() : state_(std::make_shared<State>()) {}

void DispatchGroup::enter() {
  const std::lock_guard guard(state_->mutex);
  ++state_->inFlight;
}

void DispatchGroup::leave() {
  const std::lock_guard guard(state_->mutex);
  if (state_->inFlight == 0) fatal("DispatchGroup: leave without enter");
  if (--state_->inFlight == 0) state_->empty.notify_all();
}

void DispatchGroup::async(DispatchQueue& queue, Work work) {
  enter();
  queue.async([group = *this, work = std::move(work)]() mutable {
    work();
    group.leave();
  });
}

bool DispatchGroup::wait(std::chrono::nanoseconds timeout) {
  std::unique_lock guard(state_->mutex);
  const auto isEmpty = [this] { return state_->inFlight == 0; };
  if (timeout == std::chrono::nanoseconds::max()) {
    state_->empty.wait(guard, isEmpty);
    return true;
  }
  return state_->empty.wait_for(guard, timeout, isEmpty);
}

std::unique_ptr<DispatchSource> DispatchSource::readable(int descriptor, DispatchQueue& queue,
                                                         Work handler) {
  return std::make_unique<Source>(std::make_shared<ReadableState>(
      duplicate(descriptor), base(queue), true, std::move(handler)));
}

std::unique_ptr<DispatchSource> DispatchSource::childExit(int pid, DispatchQueue& queue,
                                                          std::function<void(int)> handler) {
  // The id stays the child's until it is reaped, which happens nowhere but here.
  auto reap = [pid, handler = std::move(handler)] { handler(reapChild(pid)); };
  return std::make_unique<Source>(
      std::make_shared<ReadableState>(openChild(pid), base(queue), false, std::move(reap)));
}

std::unique_ptr<DispatchSource> DispatchSource::timer(std::chrono::nanoseconds delay,
                                                      DispatchQueue& queue, Work handler,
                                                      std::chrono::nanoseconds interval) {
  return std::make_unique<Source>(
      std::make_shared<TimerState>(delay, interval, base(queue), std::move(handler)));
}

}  // namespace velum
