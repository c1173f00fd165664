#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/PropertyList/PropertyList.h"

namespace velum {

/// How a look at stored content ended.
enum class StorageState : std::uint8_t {
  loaded,
  missing,      ///< Nothing is stored; the only state that new content may follow from.
  unavailable,  ///< It can't be read now: locked, hung, closed to us. Nobody may replace it.
  damaged,      ///< It can be read and is no content of a storage.
};

/// A small dictionary that persists itself; where and how, its implementation says. Failures are
/// logged, never thrown. Thread-safe.
class KeyStorageProtocol {
 public:
  KeyStorageProtocol() = default;
  KeyStorageProtocol(const KeyStorageProtocol&) = delete;
  KeyStorageProtocol& operator=(const KeyStorageProtocol&) = delete;
  virtual ~KeyStorageProtocol() = default;

  virtual bool isEmpty() const = 0;
  virtual std::optional<PropertyList> object(std::string_view key) const = 0;
  /// Sets the value, nothing removes the key, and has it written. False when it could not be
  /// written; it stays in memory, for the next write.
  virtual bool setObject(std::optional<PropertyList> value, std::string_view key) = 0;
  /// The same for several keys in one write. What can't be written at once is taken back, unless
  /// other changes wait as well: a later write shall not put it over what others store meanwhile.
  using Changes = std::map<std::string, std::optional<PropertyList>, std::less<>>;
  virtual bool setObjects(Changes changes) = 0;
  /// A copy of everything.
  virtual PropertyList::Dictionary dictionaryRepresentation() const = 0;
  /// Replaces everything, by nothing when absent, and writes at once. False as above.
  virtual bool reset(std::optional<PropertyList::Dictionary> content) = 0;
  /// Reads what is stored; the content stays as it is unless it is loaded.
  virtual StorageState load() = 0;
  /// Whether others have stored something since it was last read or written, as far as that can be
  /// told in a moment; false where it can't.
  virtual bool isOutdated() const { return false; }
  /// Writes what was changed since the last write. False as above.
  virtual bool store() = 0;
};

}  // namespace velum
