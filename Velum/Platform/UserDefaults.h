#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/PropertyList/PropertyList.h"

namespace velum {

/// The user's persistent settings of one domain. Several processes never lose each other's keys;
/// a change fails that others hold up for 5 seconds. Stored content that can't be understood counts
/// as empty and is kept, with a record, when the next change replaces it. Thread-safe.
class UserDefaults {
 public:
  /// Changes the entries; returns whether there is anything to write.
  using Edit = std::function<bool(PropertyList::Dictionary&)>;
  /// Hears whether what was edited is stored.
  using Afterwards = std::function<void(bool isStored)>;

  UserDefaults() = default;
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  virtual ~UserDefaults() = default;

  /// The program's own domain: its bundle identifier, else its file name.
  static UserDefaults& standard();
  /// Null for a name that cannot be a folder's: empty, or with a slash.
  static std::unique_ptr<UserDefaults> domain(std::string name);

  /// What this process's arguments set for themselves, in every domain; defaultsFromArguments
  /// (DefaultsArguments.h) says how.
  static const PropertyList::Dictionary& argumentDomain();

  /// The first value found among the arguments, what is stored, and the registered defaults.
  virtual std::optional<PropertyList> object(std::string_view key) = 0;
  /// Stores `value`; false when it could not be written, the old file then stands.
  virtual bool setObject(std::string_view key, PropertyList value) = 0;
  virtual bool removeObject(std::string_view key) = 0;

  /// Sets what `object` returns where nothing is stored; for this object, until it is destroyed.
  virtual void registerDefaults(PropertyList::Dictionary entries) = 0;
  virtual std::optional<PropertyList> registeredObject(std::string_view key) const = 0;

  /// All that is stored. Nothing when there is a file that can't be read or is no property list.
  virtual std::optional<PropertyList::Dictionary> persistentDomain() = 0;
  /// Replaces all that is stored.
  bool setPersistentDomain(PropertyList::Dictionary entries);
  /// Lets `edit` change what is stored while no other thread or process can, which lasts until
  /// `afterwards` has run. False when it could not be read or written: without a call of either
  /// where nobody could be excluded or nothing be read. Neither may use any object of the same
  /// domain.
  virtual bool change(const Edit& edit, const Afterwards& afterwards) = 0;
  bool change(const Edit& edit) { return change(edit, {}); }
};

}  // namespace velum
