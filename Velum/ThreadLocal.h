#pragma once

#include <concepts>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>

namespace velum {

/// One value per thread and holder. Unlike a `thread_local` variable it can be a member: every
/// object of a class then has its own per-thread value. A thread's value is made by the holder's
/// initializer when the thread first asks for it; it goes with the thread or, at the latest when
/// the thread next makes a value, after its holder.
template <class Value>
class ThreadLocal {
 public:
  ThreadLocal() requires std::default_initializable<Value> : ThreadLocal([] { return Value{}; }) {}
  explicit ThreadLocal(std::function<Value()> initialize) : initialize_(std::move(initialize)) {}

  /// The calling thread's value. The reference holds until the thread or the holder ends.
  Value& value() {
    Slots& slots = threadSlots();
    const char* const key = identity_.get();
    const auto found = slots.find(key);
    // An expired slot belongs to an earlier holder that lived at the same address.
    if (found != slots.end() && !found->second.holder.expired()) return *found->second.value;
    std::erase_if(slots, [](const auto& slot) { return slot.second.holder.expired(); });
    // Made first: the initializer may use this holder's or another holder's value itself.
    auto fresh = std::make_unique<Value>(initialize_());
    return *slots.insert_or_assign(key, Slot{identity_, std::move(fresh)}).first->second.value;
  }

 private:
  struct Slot {
    std::weak_ptr<const char> holder;
    std::unique_ptr<Value> value;
  };
  using Slots = std::unordered_map<const char*, Slot>;

  static Slots& threadSlots() {
    static thread_local Slots slots;
    return slots;
  }

  std::function<Value()> initialize_;
  std::shared_ptr<const char> identity_ = std::make_shared<const char>();
};

}  // namespace velum
