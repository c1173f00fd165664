#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace velum {

/// Whether the last part of a path may be a symbolic link.
enum class SymbolicLink : bool { follow, refuse };

/// The whole content of a regular file of at most `maximumSize` bytes. Nothing otherwise, and
/// errno says why: EINVAL for a folder, device or FIFO (opening one never blocks), EFBIG for more
/// bytes, ELOOP for a symbolic link that is to be refused.
std::optional<std::string> readRegularFile(const std::string& path, std::size_t maximumSize,
                                           SymbolicLink link = SymbolicLink::follow);

/// The same for a file that is open for reading, from where it stands to its end.
std::optional<std::string> readRegularFile(int file, std::size_t maximumSize);

}  // namespace velum
