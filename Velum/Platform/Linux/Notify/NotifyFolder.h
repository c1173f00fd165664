#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Files/UniqueFd.h"

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
  std::string path;
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

/// The files behind the notifications of one scope, a file per name that was posted lately and,
/// between users, per user who posted it. They stand in a few groups, subfolders, by a hash of
/// their name, so that a post wakes few of those who observe other names, the poster itself among
/// them. A file holds the generation of the last post, the same with all bits flipped, and the
/// name.
///
/// Two posts at once are two writes, which the kernel puts in an order; whichever is last stays,
/// and no lock is needed. A reader beside a write may see half of it and knows it by the flipped
/// copy.
///
/// Between users, nobody can be kept from posting: nobody writes another one's file, and whoever
/// finds something else under the name of his own takes a name that nobody can know. Folders are
/// opened without following links, checked, and used by descriptor: what stands at their paths
/// later does not matter. Files are opened without following links and without waiting for a FIFO;
/// what is not a plain file with one name is refused, and nothing is written to it. Any thread.
class NotifyFolder {
 public:
  enum class Sharing : std::uint8_t {
    user,  ///< Folder 0700, files 0600; other users' files are refused.
    all,   ///< Folder 0755, its groups 1777, files 0644.
  };
  enum class State : std::uint8_t {
    posted,
    absent,   ///< Never posted, or removed after a quiet time.
    busy,     ///< Being written just now: an event will follow.
    refused,  ///< Something else stands in the file's place, or its owner lets nobody read it.
    unread,   ///< It can't be read for the moment.
  };
  struct LastPost {
    State state = State::absent;
    NotifyGeneration generation;  ///< When posted.
    uid_t poster = 0;             ///< When posted.
    int error = 0;  ///< When refused or unread: the POSIX code, EINVAL for another thing.
  };

  /// A file whose last post is older may be removed. An observer that does not get to look for that
  /// long after a post takes the missing file for a post.
  static constexpr std::int64_t quietSeconds = 300;

  /// An empty path stands for a user without a folder for such things.
  NotifyFolder(std::string path, Sharing sharing);

  const std::string& path() const noexcept { return path_; }

  static constexpr std::size_t groups = 8;

  /// The file's name for a notification: its group, "/", and the same name where it can be one,
  /// else "=" and its SHA-256. Between users, "#", the poster's id and perhaps more follow it.
  static std::string fileName(std::string_view name);
  /// The group of such a name.
  static std::size_t groupOf(std::string_view file) noexcept {
    return static_cast<std::size_t>(file.front() - '0');
  }
  /// What `fileName` gave for the notification that a file in a group, called `entry` there, stands
  /// for.
  std::string nameOf(std::size_t group, std::string_view entry) const;

  /// Makes the folder where it is missing, one for all with its groups, and returns it. Throws
  /// SystemError, also when the folder that is there could be changed by others.
  UniqueFd make() const;
  /// The same for the folder of a group. Only the owner of a folder for all makes groups: whoever
  /// made one could remove others' files.
  UniqueFd makeGroup(std::size_t group) const;

  /// The files there are for what `fileName` gave, one per user who posted it. Throws SystemError.
  std::vector<std::string> filesOf(const std::string& name) const;

  /// What the file tells, `file` being one of `filesOf`.
  LastPost read(const std::string& file) const noexcept;
  /// The same for somebody who calls `forget` as soon as other files get that name.
  LastPost readWatched(const std::string& file) const noexcept;

  /// Looks for the file anew, the next time.
  void forget(const std::string& file) const;
  void forgetAll() const { recent_.forgetAll(); }

  /// Writes a new generation. Throws SystemError. Sweeps now and then where it made the file.
  void post(std::string_view name) const;

  /// Removes the files nobody posted lately and this user may remove.
  void sweep() const noexcept;

 private:
  using File = RecentNotifyFiles::File;

  void requirePath() const;
  UniqueFd openTop(bool mayMake) const;
  UniqueFd openGroup(const UniqueFd& top, std::size_t group, bool mayMake) const;
  UniqueFd existingGroup(std::size_t group) const noexcept;
  std::vector<std::string> entriesOf(std::size_t group) const;
  void sweepNowAndThen() const noexcept;
  void sweepGroup(std::size_t group) const noexcept;
  std::string pathOf(const std::string& file) const { return path_ + '/' + file; }
  static bool isAt(const NotifyFile& file) noexcept;
  File openExisting(const UniqueFd& group, const std::string& file, int access) const noexcept;
  File openForReading(const std::string& file) const noexcept;
  File openOwn(const std::string& name, bool& isNew) const;
  File openOrCreate(const UniqueFd& group, const std::string& file, bool& isNew) const;

  std::string path_;
  Sharing sharing_;
  mutable RecentNotifyFiles recent_;
  mutable std::atomic<std::chrono::steady_clock::rep> nextSweep_{0};
};

}  // namespace velum
