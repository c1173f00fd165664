#include "Velum/Platform/Linux/Files/InotifyWatches.h"

#include <sys/inotify.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <utility>

namespace velum {

InotifyWatches::InotifyWatches(UnfairLock& lock, InotifyReader& reader,
                               std::shared_ptr<DispatchQueue> queue)
    : lock_(lock), reader_(reader), queue_(std::move(queue)) {}

void InotifyWatches::clear() noexcept {
  generation_ = forkGeneration();
  watched_.clear();
  retired_.clear();
  isRemovalDue_ = false;
}

int InotifyWatches::add(const char* path, std::uint32_t mask) {
  const auto add = [&] {
    return ::inotify_add_watch(reader_.descriptor(), path, mask | IN_MASK_ADD);
  };
  int descriptor = add();
  if (descriptor < 0 && errno == ENOSPC && !retired_.empty()) {
    removeRetired();
    descriptor = add();
  }
  return descriptor;
}

int InotifyWatches::addOwn(const char* path, std::uint32_t mask) {
  const int descriptor = add(path, mask);
  const Watched* const watched = find(descriptor);
  if (watched == nullptr || !watched->isUnused()) return descriptor;
  removeRetired();
  return add(path, mask);
}

bool InotifyWatches::isAt(int descriptor, const char* path) {
  const int now = add(path, IN_DELETE_SELF);
  if (now >= 0 && !watched_.contains(now)) ::inotify_rm_watch(reader_.descriptor(), now);
  return now >= 0 && now == descriptor;
}

InotifyWatches::Watched* InotifyWatches::find(int descriptor) {
  const auto entry = watched_.find(descriptor);
  return entry == watched_.end() ? nullptr : &entry->second;
}

void InotifyWatches::retireIfUnused(int descriptor) {
  constexpr std::size_t most = 256;
  if (isInherited()) return;
  const Watched* const watched = find(descriptor);
  if (watched == nullptr || !watched->isUnused()) return;
  retired_.push_back(descriptor);
  if (retired_.size() >= most) return removeRetired();
  if (std::exchange(isRemovalDue_, true)) return;
  queue_->asyncAfter(std::chrono::milliseconds(100), [this] {
    const std::lock_guard guard(lock_);
    isRemovalDue_ = false;
    removeRetired();
  });
}

void InotifyWatches::removeRetired() {
  // Each of them makes an event, for which a thread would be woken that takes the kernel's lock.
  constexpr std::size_t many = 8;
  const bool isPaused = retired_.size() >= many;
  if (isPaused) reader_.pause();
  for (const int descriptor : retired_) {
    const Watched* const watched = find(descriptor);
    if (watched == nullptr || !watched->isUnused()) continue;  // wanted again
    // Fails when the kernel already dropped the watch together with its file.
    static_cast<void>(::inotify_rm_watch(reader_.descriptor(), descriptor));
    forget(descriptor);
  }
  retired_.clear();
  if (isPaused) reader_.resume();
}

}  // namespace velum
