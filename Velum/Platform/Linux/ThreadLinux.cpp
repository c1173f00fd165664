#include "Velum/Platform/Thread.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <system_error>
#include <thread>
#include <utility>

#include "Velum/Platform/AtFork.h"

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

}  // namespace

std::uint32_t currentThreadId() noexcept {
  static thread_local CachedId<std::uint32_t> cache;
  return cached(cache, ::gettid);
}

std::int32_t currentProcessId() noexcept {
  static thread_local CachedId<std::int32_t> cache;
  return cached(cache, ::getpid);
}

int startThread(const char* name, std::function<void()> body) {
  sigset_t all{};
  sigset_t before{};
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  int error = 0;
  try {
    std::thread([name, body = std::move(body)] {
      ::pthread_setname_np(::pthread_self(), name);
      body();
    }).detach();
  } catch (const std::system_error& failure) {
    error = failure.code().value();
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return error;
}

}  // namespace velum
