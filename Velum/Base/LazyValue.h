#pragma once

#include <atomic>
#include <memory>

#include "Velum/Base/AtFork.h"

namespace velum {

/// A value that is computed once, when it is first asked for, and then stays. For what takes a
/// while (reads files, calls other libraries), in the place of a static variable in a function or
/// of std::call_once: who asks meanwhile waits, as there, but a child that was forked while another
/// thread of its parent computed does not wait for a thread it does not have: it computes the value
/// itself. Any thread. This one is for `static constinit` variables: the value is never destroyed,
/// since other threads may use it while the process ends.
template <class Value>
class LazyStatic {
 public:
  constexpr LazyStatic() noexcept = default;
  LazyStatic(const LazyStatic&) = delete;
  LazyStatic& operator=(const LazyStatic&) = delete;
  ~LazyStatic() = default;

  /// What `make` returns; nothing is kept when it throws, and the next one computes it. `make` must
  /// not ask for the same value.
  template <class Make>
  Value& get(const Make& make) {
    if (Value* const known = value_.load(std::memory_order_acquire)) return *known;
    const ComputingTurn turn(busy_);
    if (Value* const known = value_.load(std::memory_order_acquire)) return *known;
    std::unique_ptr<Value> fresh(new Value(make()));  // which may be one that can't be moved
    value_.store(fresh.get(), std::memory_order_release);
    return *fresh.release();
  }

 protected:
  std::atomic<Value*> value_{nullptr};

 private:
  /// Only one thread of a process computes. `busy` is the generation of the process whose thread
  /// does, counted from 1, or 0.
  class ComputingTurn {
   public:
    explicit ComputingTurn(std::atomic<unsigned>& busy) noexcept : busy_(busy) {
      const unsigned self = forkGeneration() + 1;
      unsigned other = 0;
      while (!busy_.compare_exchange_weak(other, self, std::memory_order_acquire)) {
        // Another one's was a thread of the parent: it is not here, and what it made neither.
        if (other == self) {
          busy_.wait(self, std::memory_order_relaxed);
          other = 0;
        }
      }
    }
    ComputingTurn(const ComputingTurn&) = delete;
    ComputingTurn& operator=(const ComputingTurn&) = delete;
    ~ComputingTurn() {
      busy_.store(0, std::memory_order_release);
      busy_.notify_all();
    }

   private:
    std::atomic<unsigned>& busy_;
  };

  std::atomic<unsigned> busy_{0};
};

/// The same as a member, which goes with its object.
template <class Value>
class LazyValue : public LazyStatic<Value> {
 public:
  LazyValue() noexcept = default;
  LazyValue(const LazyValue&) = delete;
  LazyValue& operator=(const LazyValue&) = delete;
  ~LazyValue() { const std::unique_ptr<Value> mine(this->value_.load(std::memory_order_acquire)); }
};

}  // namespace velum
