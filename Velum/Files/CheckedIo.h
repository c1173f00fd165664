#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Velum/Files/UniqueFd.h"

/// System calls that throw SystemError with the message "caller: call (arguments)". Interrupted
/// calls are repeated. `caller` is the calling routine's full name.
namespace velum::checked {

/// open(2), always with O_CLOEXEC.
UniqueFd open(const std::string& path, int flags, mode_t mode, std::string_view caller);
/// The same for a file in a folder that is open: of the path, only the last part is looked up.
UniqueFd openIn(int folder, const std::string& path, int flags, mode_t mode,
                std::string_view caller);
/// read(2) of at most `size` bytes; 0 at the end of the file.
std::size_t read(int fd, void* buffer, std::size_t size, std::string_view caller);
/// Writes all `size` bytes.
void write(int fd, const void* bytes, std::size_t size, std::string_view caller);
/// lseek(2); the new offset in bytes.
std::int64_t lseek(int fd, std::int64_t offset, int whence, std::string_view caller);
/// The size in bytes of the file at `path`.
std::int64_t fileSize(const std::string& path, std::string_view caller);

}  // namespace velum::checked
