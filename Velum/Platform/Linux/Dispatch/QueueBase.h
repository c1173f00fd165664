#pragma once

#include <asio/any_io_executor.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "Velum/Platform/Dispatch.h"

namespace velum {

/// What sources and timers need to know of a queue beyond its public side.
class QueueBase : public DispatchQueue, public std::enable_shared_from_this<QueueBase> {
 public:
  explicit QueueBase(std::string label) : label_(std::move(label)) {}

  const std::string& label() const noexcept final { return label_; }
  void async(Work work) final;
  void asyncAfter(std::chrono::nanoseconds delay, Work work) final;

  virtual asio::any_io_executor executor() = 0;
  /// Where a source of this queue waits and delivers: one delivery at a time.
  virtual asio::any_io_executor sourceExecutor() { return executor(); }
  /// `work` as the queue's threads run it; also provides for a thread.
  virtual Work wrapped(Work work) = 0;

 private:
  std::string label_;
};

}  // namespace velum
