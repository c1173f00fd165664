#pragma once

#include <optional>
#include <string>

namespace velum {

/// The folders the system assigns to applications.
class Directories {
 public:
  Directories() = default;
  Directories(const Directories&) = delete;
  Directories& operator=(const Directories&) = delete;
  virtual ~Directories() = default;

  static Directories& shared();

  /// The folder shared by the user's applications of one group; not created here. Nothing when the
  /// user has no home.
  virtual std::optional<std::string> groupContainer(const std::string& groupIdentifier) = 0;

  /// The Library folder of the whole machine, created when missing. Nothing when it is neither
  /// there nor can be made.
  virtual std::optional<std::string> localLibrary() = 0;

  /// A folder of mode 0700 for this user's sockets and locks, gone when the user has logged out.
  /// Created when missing; nothing when it can't be made or belongs to somebody else.
  virtual std::optional<std::string> runtime() = 0;
};

}  // namespace velum
