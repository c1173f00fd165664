#pragma once

#include "tests/support/TemporaryFolder.h"

namespace bench {

/// A new folder below the build folder, which is on a disk as the files of users are (the
/// temporary folder of the system may be in memory). Removed with all it holds.
class TemporaryFolder : public velum::test::TemporaryFolder {
 public:
  TemporaryFolder() : velum::test::TemporaryFolder(BENCH_FOLDER) {}
};

}  // namespace bench
