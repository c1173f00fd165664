#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Files/UniqueFd.h"

namespace velum {

class Progress;

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

/// Clones `source` to `destination` (see cloneFile in Platform/FileClone.h), replacing what is
/// there. Throws SystemError "clonefile(_:to:), copyfile (source, destination)", with ECANCELED
/// when `progress` was cancelled meanwhile.
void clonefile(const std::string& source, const std::string& destination,
               const Progress* progress = nullptr);

/// Creates the folder `parent`/`name`.xxxxx with five random characters and mode 0700, or another,
/// and returns its path. Throws SystemError; messages begin with `caller`.
std::string makeTemporaryFolder(std::string_view name, std::string_view parent,
                                std::string_view caller, mode_t mode = 0700);

/// System calls that throw SystemError with the message "caller: call (arguments)". Interrupted
/// calls are repeated. `caller` is the calling routine's full name.
namespace checked {

/// open(2), always with O_CLOEXEC.
UniqueFd open(const std::string& path, int flags, mode_t mode, std::string_view caller);
/// read(2) of at most `size` bytes; 0 at the end of the file.
std::size_t read(int fd, void* buffer, std::size_t size, std::string_view caller);
/// Writes all `size` bytes.
void write(int fd, const void* bytes, std::size_t size, std::string_view caller);
/// lseek(2); the new offset in bytes.
std::int64_t lseek(int fd, std::int64_t offset, int whence, std::string_view caller);
/// The size in bytes of the file at `path`.
std::int64_t fileSize(const std::string& path, std::string_view caller);

}  // namespace checked

}  // namespace velum
