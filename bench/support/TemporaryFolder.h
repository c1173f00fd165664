#pragma once

#include <string>

namespace bench {

/// A new folder below the build folder, which is on a disk as the files of users are (the
/// temporary folder of the system may be in memory). Removed with all it holds.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  const std::string& path() const noexcept { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace bench
