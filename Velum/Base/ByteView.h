#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace velum {

/// Bytes that belong to somebody else, who keeps them as long as the view is used.
using ByteView = std::span<const std::uint8_t>;

inline ByteView byteView(std::string_view text) noexcept {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};  // NOLINT: bytes
}
inline std::string_view textView(ByteView bytes) noexcept {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};  // NOLINT: bytes are bytes
}

}  // namespace velum
