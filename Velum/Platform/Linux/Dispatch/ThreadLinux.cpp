#include "Velum/Platform/Thread.h"

#include <cxxabi.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "Velum/Base/AtFork.h"

// The compiler's name for the program or shared library that this code is part of.
extern "C" __attribute__((visibility("hidden"))) void* __dso_handle;  // NOLINT

// Part of the C library's binary interface (LSB 5.0), as what pthread_atfork calls with the address
// above, by which exit finds the handlers to take away.
extern "C" int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(),  // NOLINT
                                 void* owner) noexcept;

namespace velum {
namespace {

template <class Id>
struct CachedId {
  Id id = 0;
  unsigned generation = 0;
};

template <class Id, class Read>
Id cached(CachedId<Id>& cache, Read read) noexcept {
  const unsigned generation = forkGeneration();
  if (cache.id == 0 || cache.generation != generation) {
    cache = {static_cast<Id>(read()), generation};
  }
  return cache.id;
}

class AllSignalsBlocked {
 public:
  AllSignalsBlocked() noexcept {
    sigset_t all{};
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

static_assert(sizeof(std::atomic<std::int32_t>) == sizeof(int), "the kernel waits on an int");

}  // namespace

std::uint32_t currentThreadId() noexcept {
  static thread_local CachedId<std::uint32_t> cache;
  return cached(cache, ::gettid);
}

std::int32_t currentProcessId() noexcept {
  static thread_local CachedId<std::int32_t> cache;
  return cached(cache, ::getpid);
}

int startThread(const char* name, std::function<void()> body) noexcept {
  const AllSignalsBlocked blocked;
  try {
    std::thread([name, body = std::move(body)] {
      ::pthread_setname_np(::pthread_self(), name);
      body();
    }).detach();
    return 0;
  } catch (const std::system_error& failure) {
    return failure.code().value();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

int addForkHandlers(void (*prepare)(), void (*parent)(), void (*child)()) noexcept {
  return __register_atfork(prepare, parent, child, nullptr);
}

void atThreadExit(void (*function)(void*), void* argument) noexcept {
  abi::__cxa_thread_atexit(function, argument, static_cast<void*>(&__dso_handle));
}

void waitOnAddress(const std::atomic<std::int32_t>& word, std::int32_t value,
                   std::chrono::steady_clock::time_point deadline) noexcept {
  for (int spin = 0; spin < 16; ++spin) {
    if (word.load(std::memory_order_relaxed) != value) return;
    if (spin >= 12) ::sched_yield();
  }
  const auto end = std::chrono::nanoseconds(deadline.time_since_epoch()).count();
  constexpr long billion = 1'000'000'000;
  const timespec moment{end / billion, end % billion};
  const bool isEndless = deadline == std::chrono::steady_clock::time_point::max();
  ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, value, isEndless ? nullptr : &moment,
            nullptr, FUTEX_BITSET_MATCH_ANY);
}

void wakeOneAt(const void* address) noexcept {
  ::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, 1);
}

void wakeAllAt(const void* address) noexcept {
  ::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE, INT_MAX);
}

}  // namespace velum
