#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velum {

/// The network interface of this machine's hardware that the default route leads to: Ethernet or
/// wireless, no tunnel. `root` stands before the paths of the system's files; "" for the real ones.
std::optional<std::string> primaryEthernetInterface(const std::string& root);

/// The address an interface uses now; nothing when it has none.
std::optional<std::vector<std::uint8_t>> hardwareAddress(const std::string& root,
                                                         const std::string& interface);

}  // namespace velum
