#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {

/// Stands for one post: no other post of the same folder ever has the same two numbers, so that
/// an observer knows a post it has not seen from one it has, even after the file was made anew.
struct NotifyGeneration {
  std::uint64_t moment = 0;  ///< Nanoseconds since the system's start.
  std::uint64_t writer = 0;  ///< Thread id and a count of the process, for equal moments.

  bool operator==(const NotifyGeneration&) const = default;
};

/// The files behind the notifications of one scope, a file per name that was posted lately. It
/// holds the generation of the last post, the same with all bits flipped, and the name.
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

  /// The file's name for a notification: the same where it can be one, else "=" and its SHA-256.
  static std::string fileName(std::string_view name);

  /// Makes the folder where it is missing and returns a reference (O_PATH) to it. Throws
  /// SystemError, also when the folder that is there could be written by others.
  UniqueFd make() const;

  /// What the file `file`, made by `fileName`, tells.
  Look look(const std::string& file) const noexcept;

  /// Writes a new generation; true when the file was made for it. Throws SystemError.
  bool post(std::string_view name) const;

  /// Removes the files nobody posted lately and this user may remove.
  void sweep() const noexcept;

 private:
  void requirePath() const;
  std::string pathOf(const std::string& file) const { return path_ + '/' + file; }
  UniqueFd openExisting(const std::string& file, int access, std::size_t maxSize) const noexcept;
  UniqueFd create(const std::string& file) const;
  UniqueFd createForAll(const std::string& file) const noexcept;

  std::string path_;
  Sharing sharing_;
};

}  // namespace velum
