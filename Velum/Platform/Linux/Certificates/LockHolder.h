#pragma once

#include <optional>
#include <string>

namespace velum {

/// Who holds an advisory lock of any kind on a file, for people to read: "vpn (process 4711)", or
/// "another program" for one that this process can't see. Nothing when nobody does, or when it
/// can't be learned.
std::optional<std::string> holderOfLock(const std::string& path);

}  // namespace velum
