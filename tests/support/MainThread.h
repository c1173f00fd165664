#pragma once

#include <future>
#include <memory>
#include <thread>
#include <type_traits>

#include "Velum/Platform/Application.h"
#include "Velum/Platform/Dispatch.h"

namespace velum::test {

/// Runs the main queue on a thread of its own, which ends with the process, and `work` on it.
/// Returns what `work` returned.
template <class Work>
auto onMain(Work work) {
  [[maybe_unused]] static const bool isRunning = [] {
    std::thread([] { Application::shared().run(); }).detach();
    return true;
  }();
  auto task = std::make_shared<std::packaged_task<std::invoke_result_t<Work>()>>(std::move(work));
  DispatchQueue::main().async([task] { (*task)(); });
  return task->get_future().get();
}

}  // namespace velum::test
