#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "Velum/Base/LazyValue.h"
#include "Velum/KeyStorageProtocol.h"
#include "Velum/Platform/UserDefaults.h"
#include "Velum/PropertyList/PropertyList.h"

namespace velum {

/// What was found wrong with guarded defaults. `domainUnreadable` is for owners who look at start,
/// through `SecureDefaults::handleCorruption`.
enum class DefaultsCorruptionReason : std::uint8_t {
  domainUnreadable = 0,   ///< The domain's file is there and can't be read.
  protectedCopyLost = 1,  ///< The protected copy is damaged.
  changedOutside = 2,     ///< Somebody else changed, added or removed a value.
};

/// User defaults with a protected copy of every value. Before a value is read it is compared with
/// its copy; when the two differ, also in type only, the whole domain is put back from the copy
/// and the owner is told. What is handed out is the value that was compared. Nothing throws; every
/// operation may be called from any thread, and the handler and the blocks may call all of them.
///
/// Processes may share a domain and its protected copy, if that writes without delay: what differs
/// is compared again with the copy as it is stored, under the domain's lock, before it counts as
/// changed. Memory alone decides only while the stored copy is not outdated, for which a read pays
/// one lstat(2) where the copy is a SecureStorage. A copy in the keychain can't tell, so whoever
/// puts an old file back there deceives a process that has not read the copy since.
///
/// A write goes to the copy first, with a note of the value that the domain still has (under
/// `pendingKey`, gone when the write is over). What a killed process left in between is finished by
/// the next one that looks, and accuses nobody.
///
/// A copy that can't be read now accuses nobody either: the domain stays as it is, writers return
/// false, and readers give what the copy held when it was last read, else what is registered. Why
/// it can't is logged by the first read, and again when the reason is another one. It is
/// the same with a copy that is damaged, which is reported (`protectedCopyLost`) once. Its owner
/// decides what to trust and calls `cache->reset(values)`, with `persistentDomain()` for example.
class SecureDefaults {
 public:
  using CorruptionHandler = std::function<void(DefaultsCorruptionReason)>;

  /// The copy's own key, which no setting can have.
  static constexpr std::string_view pendingKey = "SecureDefaults:pending";

  /// Guards the domain `domainName`, which must be usable as a folder's name, with `cache`, which
  /// its owner has loaded. An empty copy means that nothing may be stored: whoever begins to guard
  /// a domain that has values calls `cache->reset(values)` before.
  SecureDefaults(std::string domainName, std::shared_ptr<KeyStorageProtocol> cache);
  SecureDefaults(const SecureDefaults&) = delete;
  SecureDefaults& operator=(const SecureDefaults&) = delete;
  virtual ~SecureDefaults();

  const std::string& domainName() const noexcept { return domainName_; }

  /// While true, values are handed out as they stand in the domain.
  std::atomic<bool> skipValidating{false};

  /// Called once for each change that is found, on the thread that read, after the repair.
  void setCorruptionHandler(CorruptionHandler handler);
  /// Calls the handler, if there is one.
  void handleCorruption(DefaultsCorruptionReason reason);

  /// Compares the value of `key` with its copy, repairs the domain if need be, and returns what
  /// `block` makes of the value: of the one that it is given, an optional property list as `object`
  /// returns it, or, without a parameter, of what it finds in the domain by then.
  template <class Block>
  auto validate(std::string_view key, Block block) {
    if constexpr (std::is_invocable_v<Block, std::optional<PropertyList>>) {
      return block(object(key));
    } else {
      if (!skipValidating) compared(key);
      return block();
    }
  }

  // Readers. A value of another type is converted as DefaultsConversions.h says; what is absent or
  // can't be converted reads as false, 0 or nothing. Arguments of the process come before the
  // domain, registered defaults after it; neither is compared with anything.
  bool boolValue(std::string_view key);
  std::int64_t integer(std::string_view key);
  double doubleValue(std::string_view key);
  std::optional<std::string> string(std::string_view key);
  std::optional<PropertyList::Data> data(std::string_view key);
  std::optional<PropertyList::Date> date(std::string_view key);
  std::optional<PropertyList::Array> array(std::string_view key);
  std::optional<PropertyList::Dictionary> dictionary(std::string_view key);
  std::optional<PropertyList> object(std::string_view key);
  /// A text with a scheme.
  std::optional<std::string> url(std::string_view key);

  // Writers. False when the value could not be stored in both places, which then keep the old one;
  // a value nested deeper than property lists may be is refused so.
  bool setBool(bool value, std::string_view key);
  bool setInteger(std::int64_t value, std::string_view key);
  bool setDouble(double value, std::string_view key);
  bool setString(std::string value, std::string_view key);
  bool setData(PropertyList::Data value, std::string_view key);
  bool setDate(PropertyList::Date value, std::string_view key);
  bool setArray(PropertyList::Array value, std::string_view key);
  bool setDictionary(PropertyList::Dictionary value, std::string_view key);
  /// Stored as text; refused without a scheme.
  bool setUrl(std::string value, std::string_view key);
  /// Nothing removes the key.
  bool setObject(std::optional<PropertyList> value, std::string_view key);
  bool removeObject(std::string_view key);

  /// Sets what is read where nothing is stored, until the object is destroyed.
  void registerDefaults(PropertyList::Dictionary entries);

  /// All that is stored in the domain, unchecked; empty when there is nothing or nothing readable.
  PropertyList::Dictionary persistentDomain();
  /// Replaces all that is stored in the domain, and not the copy: values that differ from it are
  /// put back when they are read. False when it could not be written.
  bool setPersistentDomain(PropertyList::Dictionary entries);
  /// What this process's arguments set. "SecureDefaults:silent" with a true value keeps the record
  /// of a found change out of the log, and does nothing else.
  static const PropertyList::Dictionary& argumentDomain() { return UserDefaults::argumentDomain(); }

 protected:
  /// For subclasses that make their protected copy themselves, when it is needed first.
  explicit SecureDefaults(std::string domainName);
  /// Returns the loaded copy, not null. Called once, or by several threads that need it at once, of
  /// which the first one's counts. Stops the process unless it is overridden.
  virtual std::shared_ptr<KeyStorageProtocol> makeCache();

 private:
  struct State;

  using Finding = std::optional<DefaultsCorruptionReason>;

  KeyStorageProtocol& cache();
  std::optional<PropertyList> compared(std::string_view key);
  void report(DefaultsCorruptionReason reason, std::string_view key);
  Finding compareLk(std::string_view key);
  void clearPendingLk();
  bool write(const std::optional<PropertyList>& value, std::string_view key);
  bool writeLk(const std::optional<PropertyList>& value, std::string_view key, Finding& finding);
  template <class Content>
  std::optional<Content> validated(std::string_view key);

  const std::string domainName_;
  const std::unique_ptr<UserDefaults> defs_;
  const std::unique_ptr<State> state_;
  std::shared_ptr<KeyStorageProtocol> given_;
  LazyValue<std::shared_ptr<KeyStorageProtocol>> cache_;
};

}  // namespace velum
