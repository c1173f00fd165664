#pragma once

#include <cstdint>
#include <functional>

namespace bench {

/// The most memory that `work` had beyond what the process had before, in bytes.
std::int64_t peakMemory(const std::function<void()>& work);

}  // namespace bench
