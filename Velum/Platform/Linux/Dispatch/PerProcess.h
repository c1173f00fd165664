#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "Velum/Base/AtFork.h"

namespace velum {

/// A `Value` that belongs to one process: made when first asked for, and anew in a forked child.
/// What the child inherited is never touched there, because threads that the child does not have
/// may hold its locks; it stays allocated. Has no lock itself, so that fork needs to know nothing
/// of it, and it may be asked, and destroyed, at any time. Any thread.
template <class Value>
class PerProcess {
 public:
  PerProcess() = default;
  PerProcess(const PerProcess&) = delete;
  PerProcess& operator=(const PerProcess&) = delete;
  ~PerProcess() {
    const std::unique_ptr<Entry> mine(ofThisProcess());  // goes with it
  }

  /// This process's value, made of `arguments` when there is none.
  template <class... Arguments>
  Value& get(const Arguments&... arguments) {
    if (Entry* const mine = ofThisProcess()) return mine->value;
    Entry* inherited = newest_.load(std::memory_order_relaxed);
    auto fresh = std::make_unique<Entry>(inherited, arguments...);
    // Where two threads come here at once, the first one's is taken.
    if (newest_.compare_exchange_strong(inherited, fresh.get(), std::memory_order_acq_rel)) {
      return fresh.release()->value;
    }
    return inherited->value;
  }

  /// This process's value; null when it has none yet.
  Value* existing() noexcept {
    Entry* const mine = ofThisProcess();
    return mine != nullptr ? &mine->value : nullptr;
  }

 private:
  struct Entry {
    template <class... Arguments>
    explicit Entry(Entry* inherited_, const Arguments&... arguments)
        : inherited(inherited_), value(arguments...) {}

    Entry* inherited;  // keeps it reachable, so that leak checkers see what is deliberate
    unsigned generation = forkGeneration();
    Value value;
  };

  Entry* ofThisProcess() const noexcept {
    Entry* const newest = newest_.load(std::memory_order_acquire);
    return newest != nullptr && newest->generation == forkGeneration() ? newest : nullptr;
  }

  std::atomic<Entry*> newest_{nullptr};
};

}  // namespace velum
