#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace velum {

/// One property-list value, with value semantics. The alternatives are the format's own types;
/// an integer above the signed range keeps its unsigned type, so that it never equals -1.
class PropertyList {
 public:
  using Date = std::chrono::sys_time<std::chrono::microseconds>;
  using Data = std::vector<std::uint8_t>;
  using Array = std::vector<PropertyList>;
  using Dictionary = std::map<std::string, PropertyList, std::less<>>;
  using Value = std::variant<bool, std::int64_t, std::uint64_t, double, std::string, Date, Data,
                             Array, Dictionary>;

  PropertyList() : value(Dictionary{}) {}
  /// Holds `content`, which must be of exactly one of the alternatives' types.
  template <class T>
  requires(
      !std::same_as<T, PropertyList> &&
      std::constructible_from<Value, std::in_place_type_t<T>, T>) explicit PropertyList(T content)
      : value(std::in_place_type<T>, std::move(content)) {}

  bool operator==(const PropertyList&) const = default;
  /// Equal bit by bit: 0.0 is not -0.0, and a number that is none equals itself.
  bool isIdentical(const PropertyList& other) const;

  /// The value as `T`, or null when it has another type.
  template <class T>
  const T* get() const noexcept {
    return std::get_if<T>(&value);
  }
  /// The entry `key` of a dictionary as `T`; null when absent, of another type, or no dictionary.
  template <class T>
  const T* get(std::string_view key) const {
    const auto* dictionary = get<Dictionary>();
    if (dictionary == nullptr) return nullptr;
    const auto entry = dictionary->find(key);
    return entry == dictionary->end() ? nullptr : entry->second.get<T>();
  }

  /// Reads XML or binary bytes from anywhere. Nothing when they are malformed or exceed the
  /// limits (size, depth, number of objects visited), which are checked before the parser sees
  /// them: a few hundred crafted bytes may otherwise expand to gigabytes or overflow the stack.
  static std::optional<PropertyList> read(std::string_view bytes);

  /// The value in the binary format, version 1 ("bplist00").
  std::string binary() const;

  /// The same, or nothing when `read` would refuse the result: nested too deep or too large.
  std::optional<std::string> readableBinary() const;

  Value value;
};

}  // namespace velum
