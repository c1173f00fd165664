#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/ByteView.h"

namespace velum {

/// Overwrites `size` bytes with zeros, in a way that no optimiser removes.
void wipe(void* bytes, std::size_t size) noexcept;

/// Overwrites a text's characters, all its capacity, and empties it.
void wipe(std::string& text) noexcept;

/// Memory that is overwritten before it is given back, also when a container grows.
template <class T>
struct WipingAllocator {
  using value_type = T;  // NOLINT(readability-identifier-naming): the standard's name

  WipingAllocator() noexcept = default;
  template <class U>
  WipingAllocator(const WipingAllocator<U>& /*other*/) noexcept {}  // NOLINT: converts by design

  T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
  void deallocate(T* memory, std::size_t count) noexcept {
    wipe(memory, count * sizeof(T));
    std::allocator<T>().deallocate(memory, count);
  }
  bool operator==(const WipingAllocator&) const noexcept { return true; }
};

/// Bytes that leave no copy in freed memory: keys, passwords, decrypted content.
using SecretBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

inline SecretBytes secretBytes(std::string_view text) {
  return {text.begin(), text.end()};
}

}  // namespace velum
