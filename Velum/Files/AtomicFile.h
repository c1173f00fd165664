#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Files/FileStamp.h"

namespace velum {

/// A file that is replaced as a whole: whatever happens to the process or the power, its path names
/// the old content or the new. Of several writers, in any processes, the last one wins.
///
/// The new content is written to a TemporaryFile beside it, whose mode is 0600 until it is
/// complete.
class AtomicFile {
 public:
  /// What becomes of the file that is replaced.
  enum class Old : std::uint8_t {
    replaced,
    setAside,  ///< It is kept with `asideSuffix` behind its name, in place of an earlier one.
  };
  static constexpr const char* asideSuffix = ".damaged";

  /// The file gets the permissions `mode`, whatever this process's umask is.
  explicit AtomicFile(std::string path, mode_t mode = 0600);

  const std::string& path() const noexcept { return path_; }

  /// The content is on the disk when this returns. Throws SystemError, with messages that begin
  /// with `caller`: the old file then stands, and nothing is left beside it. (Only when the last
  /// step fails, making the new name durable, the new file stands already.) The folder must
  /// exist. A symbolic link at the path is replaced, not followed. Before that, it removes what
  /// writers of this file left that were killed while they wrote. Returns the stamp of the new
  /// file, whoever replaces it next; nothing when it can't be seen.
  std::optional<FileStamp> replace(std::string_view content, std::string_view caller,
                                   Old old = Old::replaced) const;
  /// The same in the file's folder where the caller has it open, whatever its path names by now.
  std::optional<FileStamp> replaceIn(int folder, std::string_view content, std::string_view caller,
                                     Old old = Old::replaced) const;

 private:
  void nameAside(int folder, std::string_view caller) const;

  std::string path_;
  mode_t mode_;
  std::string folder_;
  std::string name_;
};

}  // namespace velum
