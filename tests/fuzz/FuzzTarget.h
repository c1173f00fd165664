#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

/// What every target defines: feeds one input to the reader under test. Returns 0; a finding stops
/// the process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace velum::fuzz {

/// Inputs that are too large to be kept as files, for the replay. A target may define it.
std::vector<std::string> craftedInputs();

/// Stops the process unless `condition` holds, in optimised builds too.
inline void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace velum::fuzz
