#include "Velum/Platform/Thread.h"

#include <unistd.h>

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

}  // namespace velum
