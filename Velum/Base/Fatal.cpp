#include "Velum/Base/Fatal.h"

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace velum {

void fatal(std::string_view text) noexcept {
  // One system call, no allocation: the heap may be what broke.
  char lineFeed = '\n';
  const std::array<iovec, 2> line{{
      {const_cast<char*>(text.data()),
       text.size()},  // NOLINT(cppcoreguidelines-pro-type-const-cast)
      {&lineFeed, 1},
  }};
  [[maybe_unused]] const ssize_t written =
      ::writev(STDERR_FILENO, line.data(), static_cast<int>(line.size()));
  std::abort();
}

}  // namespace velum
