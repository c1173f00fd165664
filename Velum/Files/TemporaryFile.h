#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Velum/Files/LockedFile.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {

/// A new file, mode 0600, that takes the place of the file `name` in its folder once it is
/// complete, and is gone when it does not come to that. Until then it has the name that `anyName`
/// describes, which no link that somebody planted can stand for.
///
/// Its lock tells others that the writer lives. A forked child closes it, so that it does not speak
/// for a parent that was killed.
class TemporaryFile {
 public:
  /// First removes what killed writers of `name` left. `folder` must stay open; `path` is its path
  /// in messages, which begin with `caller`. Throws SystemError.
  TemporaryFile(int folder, std::string path, std::string name, std::string_view caller);
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() { remove(); }

  int get() const noexcept { return file_->get(); }
  /// The path it has for now.
  std::string path() const { return path_ + '/' + temporaryName_; }

  /// Gives it its name, in one step. Throws SystemError.
  void takePlace(std::string_view caller);

  /// "." + name + "." + random letters + ".new", another one each time. Throws SystemError.
  static std::string anyName(std::string_view name);
  /// Removes the files of such names that belong to this user, for root to anybody, and that nobody
  /// has locked. `folder` is open for reading, or not at all. What can't be removed stays.
  static void removeAbandoned(UniqueFd folder, std::string_view name) noexcept;

 private:
  UniqueFd create(std::string_view caller);
  void remove() noexcept;

  int folder_;
  std::string path_;
  std::string name_;
  std::string temporaryName_;  // empty while there is none, and once it has its final name
  std::optional<LockedFile> file_;
};

}  // namespace velum
