#pragma once

#include <stdexcept>

namespace velum {

/// Why a program does not count as signed by a team. Ends a check from wherever that shows, and
/// never leaves it: its text becomes the verdict's reason.
class CodeRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace velum
