#include "Velum/Platform/Linux/Notify/NotifyReadQueue.h"

#include <algorithm>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/SystemError.h"

namespace velum {

void NotifyReadQueue::enter(const Queue& queue, int descriptor) {
  auto place = std::ranges::find(uses_, queue, &Use::queue);
  if (place == uses_.end()) place = uses_.insert(uses_.end(), {queue, 0});
  const Queue& wanted = uses_.size() == 1 ? uses_.front().queue : own_;
  if (wanted != queue_ || !source_) {
    try {
      readOn(wanted, descriptor);
    } catch (...) {
      if (place->observers == 0) uses_.erase(place);
      throw;
    }
  }
  ++place->observers;
}

NotifyReadQueue::Queue NotifyReadQueue::leave(const Queue& queue, int descriptor) {
  const auto place = std::ranges::find(uses_, queue, &Use::queue);
  if (--place->observers > 0) return nullptr;
  Queue left = std::move(place->queue);
  uses_.erase(place);
  const bool isOther = uses_.size() == 1 && uses_.front().queue != queue_;
  if (isOther) {
    queue_ = uses_.front().queue;
    source_.reset();
    resume(descriptor);
  }
  return left;
}

void NotifyReadQueue::readOn(const Queue& queue, int descriptor) {
  source_ =
      DispatchSource::readable(descriptor, *queue, [read = read_, on = queue.get()] { read(*on); });
  queue_ = queue;
}

void NotifyReadQueue::resume(int descriptor) {
  if (source_ || !queue_) return;
  try {
    readOn(queue_, descriptor);
  } catch (const SystemError&) {
    retryAfter(retryPause);
  }
}

void NotifyReadQueue::retryAfter(Clock::duration delay) {
  nextRetry_ = deadlineAfter(delay);
  if (!queue_) return;  // then only threads that wait have anything to look for
  timer_ = DispatchSource::timer(delay, *queue_, [read = read_, on = queue_.get()] { read(*on); });
}

void NotifyReadQueue::resetAfterFork() noexcept {
  source_.reset();
  timer_.reset();
  nextRetry_ = {};
}

void NotifyReadQueue::clear() noexcept {
  uses_.clear();
  queue_ = nullptr;
}

}  // namespace velum
