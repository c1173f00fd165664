#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace velum {

/// The value of a static variable that is made like any other and never destroyed: threads may use
/// it while the process exits. What takes a while to make is a LazyStatic.
template <class Value>
class NeverDestroyed {
 public:
  template <class... Arguments>
  explicit NeverDestroyed(Arguments&&... arguments) {  // NOLINT(*-member-init): just below
    ::new (&memory_) Value(std::forward<Arguments>(arguments)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;
  ~NeverDestroyed() = default;

  Value& operator*() noexcept {
    return *std::launder(reinterpret_cast<Value*>(&memory_));  // NOLINT: the value lies there
  }

 private:
  alignas(Value) std::byte memory_[sizeof(Value)];  // NOLINT(*-avoid-c-arrays): nothing else is
};

}  // namespace velum
