#include "bench/support/Memory.h"

#include <fstream>
#include <string>

namespace bench {
namespace {

// An entry of the process's status, in bytes.
std::int64_t statusValue(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != name) continue;
    std::int64_t kilobytes = 0;
    status >> kilobytes;
    return kilobytes * 1024;
  }
  return 0;
}

}  // namespace

std::int64_t peakMemory(const std::function<void()>& work) {
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak begins anew
  const std::int64_t before = statusValue("VmRSS:");
  work();
  return statusValue("VmHWM:") - before;
}

}  // namespace bench
