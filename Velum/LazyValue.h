#pragma once

#include <atomic>
#include <memory>

namespace velum {

/// A value that is computed when it is first asked for, and then stays. For what takes a while
/// (reads files, calls other libraries), in the place of a static variable in a function or of
/// std::call_once: a child that was forked while another thread computes those would wait for it
/// for ever. Here nobody waits: who asks meanwhile computes it as well, and the first one counts.
/// Any thread. This one is for `static constinit` variables: the value is never destroyed, since
/// other threads may use it while the process ends.
template <class Value>
class LazyStatic {
 public:
  constexpr LazyStatic() noexcept = default;
  LazyStatic(const LazyStatic&) = delete;
  LazyStatic& operator=(const LazyStatic&) = delete;
  ~LazyStatic() = default;

  /// What `make` returns; nothing is kept when it throws.
  template <class Make>
  Value& get(const Make& make) {
    if (Value* const known = value_.load(std::memory_order_acquire)) return *known;
    std::unique_ptr<Value> fresh(new Value(make()));  // which may be one that can't be moved
    Value* first = nullptr;
    if (value_.compare_exchange_strong(first, fresh.get(), std::memory_order_acq_rel)) {
      return *fresh.release();
    }
    return *first;
  }

 protected:
  std::atomic<Value*> value_{nullptr};
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
