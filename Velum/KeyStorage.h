#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Velum/Base/SecretBytes.h"
#include "Velum/KeyStorageProtocol.h"
#include "Velum/Platform/Dispatch.h"

namespace velum {

/// A dictionary in memory that persists itself as one binary property list. Subclasses say where
/// its bytes are: they override the three protected operations and call `finish()` in their
/// destructor. Thread-safe; two writes never overlap, and the last one holds the latest content.
///
/// Content that could not be read when `load()` asked for it (StorageUnavailable) is not lost to
/// the next write: the write reads it first and adds what was changed meanwhile. Content that is
/// damaged (any StorageError) is replaced by the next write, which keeps it elsewhere.
class KeyStorageBase : public KeyStorageProtocol {
 public:
  /// `queueLabel` names the queue of the delayed writes. A change is written `writeDelay` seconds
  /// later, together with all others until then; with 0 before `setObject` returns.
  KeyStorageBase(std::string queueLabel, double writeDelay);
  KeyStorageBase(const KeyStorageBase&) = delete;
  KeyStorageBase& operator=(const KeyStorageBase&) = delete;
  ~KeyStorageBase() override;

  bool isEmpty() const override;
  std::optional<PropertyList> object(std::string_view key) const override;
  /// A change made inside `storeData` is written after that write. With a delay, true says only
  /// that it is going to be written.
  bool setObject(std::optional<PropertyList> value, std::string_view key) override;
  bool setObjects(Changes changes) override;
  PropertyList::Dictionary dictionaryRepresentation() const override;
  bool reset(std::optional<PropertyList::Dictionary> content) override;
  /// Changes that are not written yet are dropped when there is something to read.
  StorageState load() override;
  /// Content that could not be read again (nested too deep, too large) is not written.
  bool store() override;

 protected:
  /// The stored bytes, nothing when there are none. Throws StorageError when they are damaged;
  /// anything else thrown means that they can't be had now.
  virtual std::optional<SecretBytes> loadData();
  /// Stores the bytes, which are wiped afterwards. Throws when it can't: they stay unwritten
  /// changes then. Called with no lock that the operations above need.
  virtual void storeData(std::string_view bytes);
  virtual void deleteData();

  /// Inside of `storeData`: what is replaced was found damaged, and is to be kept elsewhere.
  bool isDamaged() const;

  /// Writes what is still unwritten and ends the delayed writes, waiting for one in flight. The
  /// first thing in the destructor of the class that overrides the operations above (which should
  /// be final): once it has run, they are gone. Not to be called inside of them.
  void finish() noexcept;

 private:
  struct State;

  Work writeJob(std::optional<std::uint64_t> period) const;
  bool writeChange();
  bool writeLk();
  void readUnreadLk();

  // Shared with the delayed writes, which find there whether the storage still lives.
  std::shared_ptr<State> state_;
};

}  // namespace velum
