#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/ForkSafeLock.h"
#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {

/// Stands for one post: no other post of the same folder ever has the same two numbers, so that
/// an observer knows a post it has not seen from one it has, even after the file was made anew.
struct NotifyGeneration {
  std::uint64_t moment = 0;  ///< Nanoseconds since the system's start.
  std::uint64_t writer = 0;  ///< Thread id and a count of the process, for equal moments.

  bool operator==(const NotifyGeneration&) const = default;
};

/// One file of a notify folder, open for reading and, where that is allowed, for writing.
struct NotifyFile {
  UniqueFd fd;
  dev_t device = 0;
  ino_t inode = 0;
  uid_t owner = 0;
  std::size_t size = 0;  ///< When it was opened.
};

/// The files used last, kept open: to open one costs more than to read or write it. Any thread.
class RecentNotifyFiles {
 public:
  using File = std::shared_ptr<const NotifyFile>;

  /// The file kept under that name, whether or not it still has it; null when there is none.
  File find(const std::string& name);
  /// Instead of the one kept under that name, if there is one.
  void keep(const std::string& name, File file);
  void forget(const std::string& name);
  void forgetAll();

 private:
  static constexpr std::size_t maxFiles = 8;
  struct Entry {
    std::string name;
    File file;
  };
  using Entries = std::array<Entry, maxFiles>;

  ForkSafeLock lock_{ForkSafeLock::Stage::leaf};
  Entries entries_;
  std::size_t next_ = 0;  // to be replaced
};

/// The files behind the notifications of one scope, a file per name that was posted lately. They
/// stand in a few groups, subfolders, by a hash of their name, so that a post wakes few of those
/// who observe other names, the poster itself among them. A file holds the generation of the last
/// post, the same with all bits flipped, and the name.
///
/// Two posts at once are two writes, which the kernel puts in an order; whichever is last stays,
/// and no lock is needed. A reader beside a write may see half of it and knows it by the flipped
/// copy.
///
/// Opening never follows a link, never waits for a FIFO, and refuses what is not a plain file with
/// one name; nothing is written to such a thing. Any thread.
class NotifyFolder {
 public:
  enum class Sharing : std::uint8_t {
    user,  ///< Folder 0700, files 0600; other users' files are refused.
    all,   ///< Folder 1777, files 0666.
  };
  enum class State : std::uint8_t {
    posted,
    absent,   ///< Never posted, or removed after a quiet time.
    busy,     ///< Being written just now: an event will follow.
    refused,  ///< Can't be read, or something else stands in the file's place.
  };
  struct Look {
    State state = State::absent;
    NotifyGeneration generation;  ///< When posted.
    int error = 0;                ///< When refused: the POSIX code, EINVAL for another thing.
  };

  /// A file whose last post is older may be removed. An observer that does not get to look for that
  /// long after a post takes the missing file for a post.
  static constexpr std::int64_t quietSeconds = 300;

  /// An empty path stands for a user without a folder for such things.
  NotifyFolder(std::string path, Sharing sharing);

  const std::string& path() const noexcept { return path_; }

  static constexpr std::size_t groups = 8;

  /// The file's name for a notification: its group, "/", and the same name where it can be one,
  /// else
  /// "=" and its SHA-256.
  static std::string fileName(std::string_view name);
  /// The group of such a name.
  static std::size_t groupOf(std::string_view file) noexcept {
    return static_cast<std::size_t>(file.front() - '0');
  }

  /// Makes the folder where it is missing, one for all with its groups, and returns a reference
  /// (O_PATH) to it. Throws SystemError, also when the folder that is there could be changed by
  /// others.
  UniqueFd make() const;
  /// The same for the folder of a group, in the folder that `make` returned.
  UniqueFd makeGroup(std::size_t group) const;

  /// What the file `file`, made by `fileName`, tells.
  Look look(const std::string& file) const noexcept;
  /// The same for somebody who calls `forget` as soon as other files get that name.
  Look lookAgain(const std::string& file) const noexcept;

  /// Looks for the file anew, the next time.
  void forget(const std::string& file) const { recent_.forget(file); }
  void forgetAll() const { recent_.forgetAll(); }

  /// Writes a new generation; true when the file was made for it. Throws SystemError.
  bool post(std::string_view name) const;

  /// Removes the files nobody posted lately and this user may remove.
  void sweep() const noexcept;

 private:
  using File = RecentNotifyFiles::File;

  void requirePath() const;
  bool isSafe(const struct stat& status) const noexcept;
  bool mayMakeGroups() const noexcept;
  UniqueFd openFolder(const std::string& path, bool mayMake) const;
  void sweepGroup(std::size_t group) const noexcept;
  std::string pathOf(const std::string& file) const { return path_ + '/' + file; }
  File openExisting(const std::string& file, int access, std::size_t maxSize) const;
  File openForLook(const std::string& file) const;
  File openForPost(const std::string& file, std::size_t maxSize, bool& isNew) const;
  File create(const std::string& file) const;
  UniqueFd createForAll(const std::string& file) const noexcept;

  std::string path_;
  Sharing sharing_;
  mutable RecentNotifyFiles recent_;
};

}  // namespace velum
