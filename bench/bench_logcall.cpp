// What a log call costs that is filtered out: the time, and that it allocates nothing. A record
// that is written allocates nothing either.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/Logger.h"
#include "bench/support/Table.h"

namespace {

constexpr int loops = 4'000'000;
constexpr std::size_t callsPerLoop = 16;  // makes the loop itself free
constexpr int rounds = 25;

thread_local long allocations = 0;
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

void fileRecords() {
  static const auto handler = velum::FileLogHandler::create(
      "com.example.vpn", "/dev/null", true, {.firstCheck = std::chrono::hours(1)}, {});
  const velum::LogDate start = velum::LogDate::clock::now();
  for (int i = 0; i < 1000; ++i) {
    handler->logWithLevel(velum::LogLevel::info, start + i * std::chrono::milliseconds(10),
                          "I: (main) Cookie: secret and a text that no string holds within itself");
  }
}

double loadsAndCompares() {
  return run([](int value, std::size_t) {
    if (velum::LogLevel::debug >= level.load(std::memory_order_relaxed)) unreachable(value);
  });
}

}  // namespace

void* operator new(std::size_t size) {
  ++allocations;
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

  const auto reportAllocations = [](const char* what, auto work) {
    const long before = allocations;
    work();
    const long made = allocations - before;
    bench::report(what, std::to_string(made), "-", "0", made == 0);
  };
  reportAllocations("allocations of a filtered-out log call", filteredLogCalls);
  fileRecords();  // the thread keeps a buffer from now on
  reportAllocations("allocations of a thousand records", fileRecords);
}
