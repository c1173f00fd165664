#pragma once

#include <future>
#include <memory>
#include <thread>
#include <type_traits>

#include "Velum/Platform/Application.h"
#include "Velum/Platform/Dispatch.h"

namespace velum::test {

/// Starts the thread that runs the main queue until the process ends. There is only one.
inline void startMainThread() {
  [[maybe_unused]] static const bool isRunning = [] {
    std::thread([] { Application::shared().run(); }).detach();
    return true;
  }();
}

/// Runs `work` on the main queue's thread and returns what it returned.
template <class Work>
auto onMain(Work work) {
  startMainThread();
  auto task = std::make_shared<std::packaged_task<std::invoke_result_t<Work>()>>(std::move(work));
  DispatchQueue::main().async([task] { (*task)(); });
  return task->get_future().get();
}

}  // namespace velum::test
