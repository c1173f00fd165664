#include "bench/support/TemporaryFolder.h"

#include <cstdlib>
#include <filesystem>

#include "Velum/Base/SystemError.h"

namespace bench {

TemporaryFolder::TemporaryFolder() : path_(BENCH_FOLDER "/run.XXXXXX") {
  if (::mkdtemp(path_.data()) == nullptr) {
    throw velum::lastSystemError("TemporaryFolder, mkdtemp (" + path_ + ")");
  }
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace bench
