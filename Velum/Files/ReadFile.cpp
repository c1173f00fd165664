#include "Velum/Files/ReadFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "Velum/Files/UniqueFd.h"

namespace velum {

std::optional<std::string> readRegularFile(const std::string& path, std::size_t maximumSize,
                                           SymbolicLink link) {
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY |
                    (link == SymbolicLink::refuse ? O_NOFOLLOW : 0);
  const UniqueFd file(retryInterrupted([&] { return ::open(path.c_str(), flags); }));
  return file ? readRegularFile(file.get(), maximumSize) : std::nullopt;
}

std::optional<std::string> readRegularFile(int file, std::size_t maximumSize) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return std::nullopt;
  if (!S_ISREG(status.st_mode)) {
    errno = EINVAL;
    return std::nullopt;
  }
  if (static_cast<std::size_t>(status.st_size) > maximumSize) {
    errno = EFBIG;
    return std::nullopt;
  }

  // One byte more than the size tells the end from a file that grew meanwhile, without a read that
  // finds nothing. Files of the kernel's own claim to be empty, and are made up anew at each read
  // for as many bytes as it asks for, at most these: in smaller pieces a list loses entries.
  constexpr std::size_t kernelsPiece = 4096;
  const auto size = static_cast<std::size_t>(status.st_size);
  std::string content(size > 0 ? size + 1 : kernelsPiece, '\0');
  std::size_t length = 0;
  for (;;) {
    const ssize_t count = retryInterrupted(
        [&] { return ::read(file, content.data() + length, content.size() - length); });
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
    if (size > 0 && length == size) break;
    if (length > maximumSize) {
      errno = EFBIG;
      return std::nullopt;
    }
    if (length == content.size()) content.resize(content.size() * 2);
  }
  content.resize(length);
  return content;
}

}  // namespace velum
