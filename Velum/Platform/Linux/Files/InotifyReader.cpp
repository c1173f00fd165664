#include "Velum/Platform/Linux/Files/InotifyReader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <utility>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

/// Room for what one read(2) takes.
struct Buffer {
  std::string_view read(int inotify) noexcept {
    const ssize_t size =
        retryInterrupted([&] { return ::read(inotify, bytes.data(), bytes.size()); });
    return {bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
  }
  alignas(inotify_event) std::array<char, 16384> bytes;
};

// What the thread is woken with; 0 for an event of a file.
constexpr std::uint32_t fromMounts = 1;

// Exclusive: the kernel wakes the first one that waits, in the order in which they were added.
bool addExclusively(int epoll, int inotify) noexcept {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLEXCLUSIVE;
  return ::epoll_ctl(epoll, EPOLL_CTL_ADD, inotify, &event) == 0 || errno == EEXIST;
}

void leave(int epoll, int inotify) noexcept {
  ::epoll_ctl(epoll, EPOLL_CTL_DEL, inotify, nullptr);
}

}  // namespace

InotifyReader::InotifyReader(Sink& sink, UnfairLock& lock, std::shared_ptr<DispatchQueue> queue)
    : sink_(sink), lock_(lock), queue_(std::move(queue)) {}

void InotifyReader::open() {
  if (isOpen_) return;
  inotify_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!inotify_) throw lastSystemError("watch(_:), inotify_init1 ()");
  pool_.reset(::epoll_create1(EPOLL_CLOEXEC));
  if (!pool_ || !addExclusively(pool_.get(), inotify_.get())) {
    throw lastSystemError("watch(_:), epoll_create1 ()");
  }
  source_ = DispatchSource::readable(pool_.get(), *queue_, [this] { readInPool(); });
  isOpen_ = true;
}

void InotifyReader::startThread() {
  if (hasThread_ || !enterFirst()) return;
  // This object is never destroyed. Without a thread, the next watch asks again.
  hasThread_ = velum::startThread("velum-events", [this, generation = forkGeneration()] {
                 readInThread(generation);
               }) == 0;
}

// Puts the thread before the pool.
bool InotifyReader::enterFirst() {
  if (thread_) return true;
  UniqueFd thread(::epoll_create1(EPOLL_CLOEXEC));
  if (!thread) return false;
  leave(pool_.get(), inotify_.get());
  const bool isAdded = addExclusively(thread.get(), inotify_.get());
  mounts_.reset(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  mountsNumber_ = mounts_.get();
  epoll_event event{};
  event.events = EPOLLPRI;
  event.data.u32 = fromMounts;
  if (mounts_) ::epoll_ctl(thread.get(), EPOLL_CTL_ADD, mounts_.get(), &event);
  if (isAdded) thread_ = std::move(thread);
  return addExclusively(pool_.get(), inotify_.get()) && isAdded;
}

void InotifyReader::pause() noexcept {
  if (!isOpen_) return;
  if (thread_) leave(thread_.get(), inotify_.get());
  leave(pool_.get(), inotify_.get());
}

// Without memory for it, once there is some.
void InotifyReader::resume() {
  constexpr std::chrono::milliseconds retryPause{100};
  if (!isOpen_ || enter()) return;
  queue_->asyncAfter(retryPause, [this, generation = forkGeneration()] {
    const std::lock_guard guard(lock_);
    if (generation == forkGeneration()) resume();
  });
}

bool InotifyReader::enter() noexcept {
  const bool hasEntered = !thread_ || addExclusively(thread_.get(), inotify_.get());
  return addExclusively(pool_.get(), inotify_.get()) && hasEntered;
}

void InotifyReader::readInThread(unsigned generation) {
  const auto buffer = std::make_unique<Buffer>();
  const int epoll = thread_.get();
  // In a child that a handler forked, this thread goes on, but the events are the parent's.
  while (generation == forkGeneration()) {
    epoll_event event{};
    retryInterrupted([&] { return ::epoll_wait(epoll, &event, 1, -1); });
    std::unique_lock reading(reading_);
    if (event.data.u32 == fromMounts) sink_.mountsChanged();
    const std::string_view events = buffer->read(inotify_.get());
    if (!events.empty()) sink_.take(events, std::move(reading));
  }
}

void InotifyReader::readInPool() {
  // While the thread reads, this is called again and again: it may go without having read all.
  if (!reading_.try_lock()) return;
  const std::lock_guard guard(reading_, std::adopt_lock);
  if (haveMountsChanged()) sink_.mountsChanged();
  Buffer buffer{};
  for (std::string_view events; !(events = buffer.read(inotify_.get())).empty();) {
    sink_.take(events, {});
  }
}

bool InotifyReader::haveMountsChanged() const noexcept {
  pollfd state{mountsNumber_, POLLPRI, 0};
  return ::poll(&state, 1, 0) > 0 && (state.revents & POLLPRI) != 0;
}

void InotifyReader::resetAfterFork() noexcept {
  mountsNumber_ = -1;
  mounts_.reset();
  inotify_.reset();
  pool_.reset();
  thread_.reset();
  isOpen_ = hasThread_ = false;
  reading_.resetAfterFork();
}

}  // namespace velum
