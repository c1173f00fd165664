#include "Velum/Concurrency/SyncAsync.h"

namespace velum {

SyncAsync::SyncAsync(std::string label) : queue_(DispatchQueue::serial(std::move(label))) {}

void SyncAsync::async(Work work) {
  group_.async(*queue_, std::move(work));
}

bool SyncAsync::wait(Timeout timeout) {
  return group_.wait(timeout.value_or(std::chrono::nanoseconds::max()));
}

}  // namespace velum
