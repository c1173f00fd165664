#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Platform/PropertyList.h"

namespace velum {

/// The user's persistent settings of one domain. Linux: $XDG_CONFIG_HOME/<domain>/defaults.plist
/// (default ~/.config), replaced atomically, read-modify-write under a file lock, so that several
/// processes never lose each other's keys. A file that is no property list counts as empty and is
/// kept as defaults.plist.damaged when the next change replaces it. Thread-safe.
class UserDefaults {
 public:
  UserDefaults() = default;
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  virtual ~UserDefaults() = default;

  /// The program's own domain: its bundle identifier, else its file name.
  static UserDefaults& standard();
  /// Null for a name that cannot be a folder's: empty, or with a slash.
  static std::unique_ptr<UserDefaults> domain(std::string name);

  /// The stored value; nothing when absent or unreadable.
  virtual std::optional<PropertyList> object(std::string_view key) = 0;
  /// Stores `value`; false when it could not be written, the old file then stands.
  virtual bool setObject(std::string_view key, PropertyList value) = 0;
  virtual bool removeObject(std::string_view key) = 0;
};

}  // namespace velum
