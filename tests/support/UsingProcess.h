#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <thread>

#include "tests/support/ChildProcess.h"

namespace velum::test {

/// Uses a service once, from any thread; false when it failed.
using Use = std::function<bool()>;

inline void pauseAtRandom() {
  static std::mt19937 random{std::random_device{}()};
  std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
}

/// Runs `body` in a process of its own beside threads that use a service for ever. `make` is called
/// there.
inline void besideUsers(const std::function<Use()>& make,
                        const std::function<void(const Use&)>& body) {
  inChild([&] {
    // An application's own end takes a moment, and comes after that of what was begun later.
    static_cast<void>(
        std::atexit([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }));
    // Left to the process's end, as an application's are.
    auto* const use = new Use(make());  // NOLINT(*-owning-memory)
    ASSERT_TRUE((*use)());
    for (int i = 0; i < 8; ++i) {
      std::thread([use] {
        while ((*use)()) continue;
      }).detach();
    }
    body(*use);
  });
}

/// Processes that exit(3) while threads use a service.
inline void exitBesideUsers(const std::function<Use()>& make) {
  for (int round = 0; round < 8 && !testing::Test::HasFailure(); ++round) {
    besideUsers(make, [](const Use&) {
      pauseAtRandom();
      std::exit(testing::Test::HasFailure() ? 1 : 0);  // NOLINT(concurrency-mt-unsafe)
    });
  }
}

}  // namespace velum::test
