#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "Velum/Base/ByteView.h"
#include "Velum/Base/SecretBytes.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {

/// A folder of this user's that is closed to others, for files that are. It is opened once and its
/// files are reached through the descriptor, so nobody can swap it meanwhile.
///
/// Refused, with a SystemError: symbolic links (ELOOP; for the folder ENOTDIR), what is neither a
/// folder nor a regular file (EINVAL), what belongs to somebody else or is open to group or others
/// (EPERM). Everything else throws SystemError with its own code. Any thread.
class PrivateFolder {
 public:
  /// Opens the folder at `path`, made with mode 0700 when missing, its parents likewise.
  explicit PrivateFolder(std::string path);

  const std::string& path() const noexcept { return path_; }
  std::string pathOf(const char* name) const { return path_ + '/' + name; }

  /// Whether there is anything of this name, of whatever kind.
  bool has(const char* name) const;

  /// The whole content of a file; nothing when there is none. EFBIG beyond `maximumSize` bytes.
  std::optional<SecretBytes> read(const char* name, std::size_t maximumSize) const;

  /// Replaces a file, or makes it, with mode 0600, as an AtomicFile does.
  void replace(const char* name, ByteView content) const;

  /// A descriptor of the file `name`, made when missing, for a LockedFile. Every call opens it
  /// anew, so that the lock excludes threads as well as processes.
  UniqueFd openLock(const char* name) const;

 private:
  std::string path_;
  UniqueFd folder_;
};

/// The content of a file that the service manager hands over; nothing when there is none. It may
/// belong to root and be readable for a group, which is how a list of entitled users shows;
/// otherwise as above. Throws SystemError.
std::optional<SecretBytes> readCredential(const std::string& path, std::size_t maximumSize);

}  // namespace velum
