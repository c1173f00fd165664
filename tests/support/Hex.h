#pragma once

#include <string>
#include <string_view>

namespace velum::test {

inline std::string bytesOfHex(std::string_view hex) {
  std::string bytes;
  for (std::size_t at = 0; at < hex.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(std::string(hex.substr(at, 2)), nullptr, 16));
  }
  return bytes;
}

}  // namespace velum::test
