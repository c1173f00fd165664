#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace velum {

/// The whole content of a regular file of at most `maximumSize` bytes. Nothing otherwise, and
/// errno says why: EINVAL for a folder, device or FIFO (opening one never blocks), EFBIG for more
/// bytes. A symbolic link is followed.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t maximumSize);

}  // namespace velum
