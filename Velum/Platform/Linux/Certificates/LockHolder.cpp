#include "Velum/Platform/Linux/Certificates/LockHolder.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <sstream>

#include "Velum/Base/String.h"
#include "Velum/Files/ReadFile.h"

namespace velum {
namespace {

std::string nameOf(int process) {
  constexpr std::size_t largest = 64;
  auto name =
      process > 0 ? readRegularFile(fmt::format("/proc/{}/comm", process), largest) : std::nullopt;
  if (!name || name->empty()) return "another program";
  name->pop_back();  // its line feed
  return fmt::format("{} (process {})", repairedUtf8(*name), process);
}

/// How /proc/locks names the file: "08:01:1234". On a volume without a device of its own the kernel
/// shows other numbers there than stat(2) does, so that only the last one counts.
bool isNamed(const std::string& name, const struct stat& status) {
  const std::string number = fmt::format(":{}", status.st_ino);
  if (major(status.st_dev) == 0) return name.ends_with(number);
  return name == fmt::format("{:02x}:{:02x}{}", major(status.st_dev), minor(status.st_dev), number);
}

std::optional<std::string> lookForHolder(const struct stat& status) {
  constexpr std::size_t largest = std::size_t{16} << 20U;
  std::istringstream lines(readRegularFile("/proc/locks", largest).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    // 1: POSIX  ADVISORY  WRITE 4711 08:01:1234 0 EOF; who waits has an arrow behind the number.
    std::istringstream fields(line);
    std::string word;
    std::string file;
    int process = 0;
    if (fields >> word >> word && word == "->") continue;
    if (fields >> word >> word >> process >> file && isNamed(file, status)) return nameOf(process);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> holderOfLock(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  // A list of several pages misses a lock when one before it goes meanwhile.
  constexpr int looks = 5;
  std::optional<std::string> holder;
  for (int look = 0; look < looks && !holder; ++look) holder = lookForHolder(status);
  return holder;
}

}  // namespace velum
