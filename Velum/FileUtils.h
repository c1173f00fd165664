#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace velum {

/// Finding, moving and deleting files. Failures are logged, not thrown. Any thread.
class FileUtils {
 public:
  /// The files (not folders, not hidden ones) directly in `folder` whose path ends with `suffix`;
  /// newest modification first when `sorted`, files without a known time last. Empty, and one
  /// logged error, when the folder can't be read.
  static std::vector<std::string> findFile(std::string_view suffix, const std::string& folder,
                                           bool sorted);

  /// Moves the file `name`, no folder, into `directory` under its own name, across volumes too; of
  /// a symbolic link the link itself. What is there already is an error and stays.
  static void moveFile(const std::string& name, const std::string& directory);

  /// Removes a file, or a folder with all it holds.
  static void deleteFile(const std::string& path);
};

}  // namespace velum
