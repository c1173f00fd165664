#include "Velum/DirectoryMonitor.h"

#include <limits>
#include <mutex>
#include <optional>
#include <utility>

#include "Velum/Base/LazyValue.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Dispatch.h"

namespace velum {
namespace {

const std::shared_ptr<DispatchQueue>& sharedQueue() {
  static constinit LazyStatic<std::shared_ptr<DispatchQueue>> queue;
  return queue.get([] { return DispatchQueue::concurrent("DirectoryMonitor"); });
}

}  // namespace

std::shared_ptr<DirectoryMonitor> DirectoryMonitor::create(std::string path,
                                                           FileEvents& fileEvents) {
  return std::make_shared<DirectoryMonitor>(Private{}, std::move(path), fileEvents);
}

DirectoryMonitor::DirectoryMonitor(Private /*unused*/, std::string path, FileEvents& fileEvents)
    : path_(std::move(path)), fileEvents_(fileEvents) {}

std::shared_ptr<DirectoryMonitorDelegate> DirectoryMonitor::delegate() const {
  const std::lock_guard guard(lock_);
  return delegate_.lock();
}

void DirectoryMonitor::setDelegate(std::weak_ptr<DirectoryMonitorDelegate> delegate) {
  const std::lock_guard guard(lock_);
  delegate_.swap(delegate);
}

bool DirectoryMonitor::startMonitoring() try {
  const std::lock_guard guard(lock_);
  // What the source was made for may be gone from the path; it then only tells what comes there,
  // until a start that finds something makes a new one.
  if (isStarted_ && !dispatchSource_->isOutdated()) return true;
  openLk();
  return true;
} catch (const SystemError& error) {
  // Outside of the lock: the log's own come at the same stage of a fork.
  const SystemError wrapped(error.code(), "Open " + path_ + " for file notifications");
  logError({"startMonitoring()"}, "{} [{}]", wrapped.what(), error.message());
  return false;
}

void DirectoryMonitor::openLk() {
  const std::int32_t descriptor =
      lastDescriptor_ == std::numeric_limits<std::int32_t>::max() ? 0 : lastDescriptor_ + 1;
  // An event may come before this returns; its handler waits for the lock.
  dispatchSource_ = fileEvents_.watchPath(
      path_, sharedQueue(), [weak = weak_from_this(), descriptor](FileEvent /*event*/) {
        if (const auto self = weak.lock()) self->handleEvent(descriptor);
      });
  descriptor_ = lastDescriptor_ = descriptor;
  isStarted_ = true;
}

void DirectoryMonitor::handleEvent(std::int32_t descriptor) {
  std::shared_ptr<DirectoryMonitorDelegate> delegate;
  {
    const std::lock_guard guard(lock_);
    if (isStarted_ && descriptor_ == descriptor) delegate = delegate_.lock();
  }
  if (delegate) delegate->directoryMonitorDidObserveChange(*this);
}

void DirectoryMonitor::stopMonitoring() {
  std::unique_ptr<FileEvents::Watch> cancelled;  // ends after the lock
  const std::lock_guard guard(lock_);
  cancelled = std::move(dispatchSource_);
  isStarted_ = false;
  descriptor_ = -1;
}

}  // namespace velum
