#pragma once

#include <optional>
#include <string_view>

#include "Velum/Platform/PropertyList.h"

namespace velum {

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
  /// Sets the value, nothing removes the key, and has it written.
  virtual void setObject(std::optional<PropertyList> value, std::string_view key) = 0;
  /// A copy of everything.
  virtual PropertyList::Dictionary dictionaryRepresentation() const = 0;
  /// Replaces everything, by nothing when absent, and writes at once.
  virtual void reset(std::optional<PropertyList::Dictionary> content) = 0;
  /// Reads what is stored; the content stays as it is when that can't be done.
  virtual void load() = 0;
  /// Writes what was changed since the last write.
  virtual void store() = 0;
};

}  // namespace velum
