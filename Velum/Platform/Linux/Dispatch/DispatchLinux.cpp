#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <atomic>
#include <cstdint>
#include <system_error>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Dispatch/MainLoop.h"
#include "Velum/Platform/Linux/Dispatch/PerProcess.h"
#include "Velum/Platform/Linux/Dispatch/QueueBase.h"
#include "Velum/Platform/Linux/Dispatch/WorkerPool.h"
#include "Velum/Platform/Thread.h"

namespace velum {

void QueueBase::async(Work work) {
  asio::post(executor(), wrapped(std::move(work)));
}

void QueueBase::asyncAfter(std::chrono::nanoseconds delay, Work work) try {
  const auto timer = std::make_shared<asio::steady_timer>(executor(), deadlineAfter(delay));
  timer->async_wait([timer, item = wrapped(std::move(work))](const asio::error_code& error) {
    if (!error) item();
  });
} catch (const std::system_error& error) {  // the reactor, made with its first timer
  throw SystemError(error.code().value(), "DispatchQueue::asyncAfter");
}

namespace {

using Executor = asio::any_io_executor;

/// Only one thread runs it, but the context must not be told so: it would then keep what that
/// thread hands in apart until the item ends, and what others hand in later would come first.
struct MainContext {
  asio::io_context context;
  asio::executor_work_guard<asio::io_context::executor_type> keepsRunning{context.get_executor()};
  std::atomic<std::uint32_t> thread{0};  // which one runs it; 0 for none so far
};

PerProcess<MainContext>& mainContexts() {
  static NeverDestroyed<PerProcess<MainContext>> instance;
  return *instance;
}

class MainQueue final : public QueueBase {
 public:
  MainQueue() : QueueBase("main") {}
  Executor executor() override { return mainContexts().get().context.get_executor(); }
  Work wrapped(Work work) override {
    return [work = std::move(work)] { performWork(work, runMainLoop); };
  }
};

class ConcurrentQueue final : public QueueBase {
 public:
  explicit ConcurrentQueue(std::string label) : QueueBase(std::move(label)) {}
  bool isConcurrent() const noexcept override { return true; }
  Executor executor() override { return WorkerPool::shared().context().get_executor(); }
  Executor sourceExecutor() override { return asio::make_strand(WorkerPool::shared().context()); }
  Work wrapped(Work work) override {
    WorkerPool& pool = WorkerPool::shared();
    pool.provideThread();
    return pool.item(std::move(work));
  }
};

/// Keeps itself alive until its last work item ran.
class SerialQueue final : public QueueBase {
 public:
  explicit SerialQueue(std::string label) : QueueBase(std::move(label)) {}

  Executor executor() override {
    return strand_.get(WorkerPool::shared().context().get_executor());
  }

  Work wrapped(Work work) override {
    WorkerPool& pool = WorkerPool::shared();
    pool.provideThread();
    return pool.item([self = shared_from_this(), work = std::move(work)] { work(); });
  }

 private:
  PerProcess<asio::strand<asio::io_context::executor_type>> strand_;
};

/// Its thread is one of the pool's, which gives it back when the queue is gone: so the pool sees to
/// it that there is a thread at all. The context must not be told that only one thread runs it.
class ThreadQueue final : public QueueBase {
 public:
  explicit ThreadQueue(std::string label) : QueueBase(std::move(label)) {}
  ThreadQueue(const ThreadQueue&) = delete;
  ThreadQueue& operator=(const ThreadQueue&) = delete;
  ~ThreadQueue() override {
    if (auto* const loop = loops_.existing()) (*loop)->keepsRunning.reset();
  }

  Executor executor() override { return loops_.get()->context.get_executor(); }

  Work wrapped(Work work) override {
    const std::shared_ptr<Loop> loop = loops_.get().loop;
    if (!loop->isRun.exchange(true)) DispatchQueue::global().async([loop] { loop->context.run(); });
    return [self = shared_from_this(), work = std::move(work)] {
      performWork(work, [] { WorkerPool::shared().serve(); });
    };
  }

 private:
  struct Loop {
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> keepsRunning{context.get_executor()};
    std::atomic<bool> isRun{false};
  };
  struct SharedLoop {
    Loop* operator->() const noexcept { return loop.get(); }
    std::shared_ptr<Loop> loop = std::make_shared<Loop>();
  };

  PerProcess<SharedLoop> loops_;
};

}  // namespace

DispatchQueue& DispatchQueue::main() {
  static NeverDestroyed<MainQueue> instance;
  return *instance;
}

bool DispatchQueue::isMain() noexcept {
  const MainContext* const main = mainContexts().existing();
  const std::uint32_t runner = main != nullptr ? main->thread.load() : 0;
  const auto first = static_cast<std::uint32_t>(currentProcessId());
  return currentThreadId() == (runner != 0 ? runner : first);
}

DispatchQueue& DispatchQueue::global() {
  static NeverDestroyed<ConcurrentQueue> instance("global");
  return *instance;
}

std::shared_ptr<DispatchQueue> DispatchQueue::serial(std::string label) {
  return std::make_shared<SerialQueue>(std::move(label));
}

std::shared_ptr<DispatchQueue> DispatchQueue::serialWithThread(std::string label) {
  return std::make_shared<ThreadQueue>(std::move(label));
}

std::shared_ptr<DispatchQueue> DispatchQueue::concurrent(std::string label) {
  return std::make_shared<ConcurrentQueue>(std::move(label));
}

void runMainLoop() {
  while (true) {
    MainContext& main = mainContexts().get();
    main.thread.store(currentThreadId());
    main.context.run();
  }
}

}  // namespace velum
