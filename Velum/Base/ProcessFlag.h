#pragma once

#include "Velum/Base/AtFork.h"

namespace velum {

/// A flag that holds in the process that set it: a forked child finds it cleared. Under its owner's
/// lock.
class ProcessFlag {
 public:
  ProcessFlag& operator=(bool isSet) noexcept {
    isSet_ = isSet;
    generation_ = forkGeneration();
    return *this;
  }
  explicit operator bool() const noexcept { return isSet_ && generation_ == forkGeneration(); }

 private:
  bool isSet_ = false;
  unsigned generation_ = 0;
};

}  // namespace velum
