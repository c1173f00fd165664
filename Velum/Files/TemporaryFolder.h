#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "Velum/Files/FileLock.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {

/// Creates the folder `parent`/`name`.xxxxx with five random characters and mode 0700, or another,
/// and returns its path. Throws SystemError; messages begin with `caller`.
std::string makeTemporaryFolder(std::string_view name, std::string_view parent,
                                std::string_view caller, mode_t mode = 0700);

/// A folder for the time of one operation, private to this user; goes with all it holds.
///
/// What a killed process leaves behind, the next one of the same kind in the same place removes.
/// That is one with the same name, or for names with an extension, with the same extension; told
/// from anybody else's folder by its owner, a mode that nobody else gives, and the lock on it,
/// which its maker holds as long as it lives. Where the file system has no such locks or modes, it
/// stays.
class TemporaryFolder {
 public:
  /// Makes `parent`/`name`.xxxxx. Throws SystemError like makeTemporaryFolder.
  TemporaryFolder(std::string_view name, const std::string& parent, std::string_view caller);
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() { static_cast<void>(remove()); }

  const std::string& path() const noexcept { return path_; }

  /// Removes it now. What can't be removed stays.
  std::error_code remove() const noexcept;

 private:
  bool tryToOwn();

  std::string path_;
  UniqueFd folder_;
  std::optional<FileLock> lock_;  // released before the folder is closed
};

}  // namespace velum
