#pragma once

#include <concepts>
#include <functional>
#include <iterator>
#include <memory>
#include <unordered_map>
#include <utility>

#include "Velum/Platform/Thread.h"

namespace velum {

/// One value per thread and holder. Unlike a `thread_local` variable it can be a member: every
/// object of a class then has its own per-thread value. A thread's value is made by the holder's
/// initializer when the thread first asks for it; it goes with the thread or, at the latest when
/// the thread next makes a value, after its holder. Whoever asks while the thread ends, such as the
/// destructor of a `thread_local` variable, may get a new value, which goes with the thread, too.
template <class Value>
class ThreadLocal {
 public:
  ThreadLocal() requires std::default_initializable<Value> : ThreadLocal([] { return Value{}; }) {}
  explicit ThreadLocal(std::function<Value()> initialize) : initialize_(std::move(initialize)) {}
  ThreadLocal(const ThreadLocal&) = delete;
  ThreadLocal& operator=(const ThreadLocal&) = delete;

  /// The calling thread's value. The reference holds until the thread or the holder ends.
  Value& value() {
    const char* const key = identity_.get();
    {
      Slots& slots = threadSlots();
      const auto found = slots.find(key);
      // An expired slot belongs to an earlier holder that lived at the same address.
      if (found != slots.end() && !found->second.holder.expired()) return *found->second.value;
    }
    // Made first, and what is old goes last: initializers and destructors may use holders, too.
    auto fresh = std::make_unique<Value>(initialize_());
    Slots& slots = threadSlots();
    const Slots expired = takeExpired(slots);
    return *slots.insert_or_assign(key, Slot{identity_, std::move(fresh)}).first->second.value;
  }

 private:
  struct Slot {
    std::weak_ptr<const char> holder;
    std::unique_ptr<Value> value;
  };
  using Slots = std::unordered_map<const char*, Slot>;

  static Slots takeExpired(Slots& slots) {
    Slots expired;
    for (auto slot = slots.begin(); slot != slots.end();) {
      const auto next = std::next(slot);
      if (slot->second.holder.expired()) expired.insert(slots.extract(slot));
      slot = next;
    }
    return expired;
  }

  /// A plain pointer, which can be asked at any time while the thread ends.
  static Slots& threadSlots() {
    static thread_local Slots* current = nullptr;
    if (current == nullptr) {
      auto fresh = std::make_unique<Slots>();
      current = fresh.get();
      const auto release = [](void* slots) {
        current = nullptr;  // first: the values' destructors may ask for new ones
        const std::unique_ptr<Slots> owned(static_cast<Slots*>(slots));
      };
      atThreadExit(release, fresh.release());
    }
    return *current;
  }

  std::function<Value()> initialize_;
  std::shared_ptr<const char> identity_ = std::make_shared<const char>();
};

}  // namespace velum
