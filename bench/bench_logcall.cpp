// What a log call costs that is filtered out: the time, and that it allocates nothing.

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include "Velum/Logger/Logger.h"
#include "bench/support/Table.h"

namespace {

constexpr int loops = 4'000'000;
constexpr std::size_t callsPerLoop = 16;  // makes the loop itself free
constexpr int rounds = 25;

std::atomic<long> allocations{0};
std::atomic<velum::LogLevel> level{velum::LogLevel::info};
const std::string name(100, 'n');

// The compiler must take it for a value that it knows nothing of.
template <class Value>
void makeOpaque(Value& value) {
  asm volatile("" : "+r"(value));
}

template <class Call, std::size_t... indices>
double run(Call call, std::index_sequence<indices...> /*unused*/) {
  return bench::timed([&] {
    for (int i = 0; i < loops; ++i) {
      int value = i;
      makeOpaque(value);
      (call(value, indices), ...);
    }
  });
}

template <class Call>
double run(Call call) {
  return run(call, std::make_index_sequence<callsPerLoop>());
}

[[gnu::noinline]] void unreachable(int value) {
  makeOpaque(value);
  std::abort();
}

double filteredLogCalls() {
  return run([](int value, std::size_t index) {
    velum::logDebug({"loadObject(key:)"}, "Loaded {} bytes of {} at {}", value, name, index);
  });
}

double loadsAndCompares() {
  return run([](int value, std::size_t) {
    if (velum::LogLevel::debug >= level.load(std::memory_order_relaxed)) unreachable(value);
  });
}

}  // namespace

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

int main() {
  velum::Logger::shared().setLogLevel(velum::LogLevel::info);
  const auto times = bench::interleaved(
      rounds, {[&] { return filteredLogCalls(); }, [] { return loadsAndCompares(); }});
  bench::report("filtered-out log call", times[0], "relaxed load, compare", times[1], {1.2},
                double{loops} * callsPerLoop);

  const long before = allocations.load();
  filteredLogCalls();
  const long made = allocations.load() - before;
  bench::report("allocations of a filtered-out log call", std::to_string(made), "-", "0",
                made == 0);
}
