#include "Velum/SecureDefaults.h"

#include <mutex>
#include <utility>

#include "Velum/Base/Fatal.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Logger/DeferredLog.h"
#include "Velum/Logger/Logger.h"
#include "Velum/PropertyList/DefaultsConversions.h"

namespace velum {
namespace {

using Entries = PropertyList::Dictionary;
using Stored = std::optional<PropertyList>;

constexpr LogSite site{"Velum/SecureDefaults", "validate(key:block:)"};

Stored found(const Entries& entries, std::string_view key) {
  const auto entry = entries.find(key);
  if (entry == entries.end()) return std::nullopt;
  return entry->second;
}

bool isSame(const Stored& left, const Stored& right) {
  return left ? right && left->isIdentical(*right) : !right;
}

/// While a write is under way the copy holds, under `pendingKey`, the values that the domain may
/// still have: by key, an array of the one value, or of none where there was none. So what a killed
/// process or a failed write leaves is told from a change by somebody else, who can't write this.
Entries pendingIn(const KeyStorageProtocol& copy) {
  auto pending = copy.object(SecureDefaults::pendingKey);
  auto* const entries = pending ? std::get_if<Entries>(&pending->value) : nullptr;
  return entries == nullptr ? Entries{} : std::move(*entries);
}

void addPending(Entries& pending, std::string_view key, const Stored& value) {
  PropertyList::Array values;
  if (value) values.push_back(*value);
  pending.insert_or_assign(std::string(key), PropertyList(std::move(values)));
}

std::optional<PropertyList> pendingValue(Entries pending) {
  if (pending.empty()) return std::nullopt;
  return std::make_optional<PropertyList>(std::move(pending));
}

void put(Entries& entries, std::string_view key, const Stored& value) {
  if (value) {
    entries.insert_or_assign(std::string(key), *value);
  } else if (const auto entry = entries.find(key); entry != entries.end()) {
    entries.erase(entry);
  }
}

/// Gives the keys of unfinished writes their values of the copy. Whether there was any.
bool finishPending(Entries& entries, const KeyStorageProtocol& copy) {
  bool isAny = false;
  for (const auto& [key, before] : pendingIn(copy)) {
    const auto* const values = before.get<PropertyList::Array>();
    if (values == nullptr) continue;
    const Stored old = values->empty() ? Stored() : Stored(values->front());
    if (!isSame(found(entries, key), old)) continue;
    put(entries, key, copy.object(key));
    isAny = true;
  }
  return isAny;
}

Entries contentOf(const KeyStorageProtocol& copy) {
  Entries entries = copy.dictionaryRepresentation();
  put(entries, SecureDefaults::pendingKey, std::nullopt);
  return entries;
}

/// What others have stored since, in any process. Changes that can't be written are not given up
/// for it: then nobody can tell what is stored.
StorageState reload(KeyStorageProtocol& copy) {
  return copy.store() ? copy.load() : StorageState::unavailable;
}

/// The entry as it will be when it was written and read again: numbers in the type that the format
/// gives them, text in UTF-8, dates in the precision it has. Nothing when that can't be.
std::optional<Entries::value_type> asReadBack(std::string_view key, PropertyList value) {
  Entries entries;
  entries.emplace(key, std::move(value));
  auto list = PropertyList::read(PropertyList(std::move(entries)).binary());
  auto* const read = list ? std::get_if<Entries>(&list->value) : nullptr;
  if (read == nullptr || read->size() != 1) return std::nullopt;
  return std::move(*read->begin());
}

bool isSilent() {
  const auto value = found(SecureDefaults::argumentDomain(), "SecureDefaults:silent");
  return value && boolFrom(*value);
}

/// Around a comparison or a write and the records that come of it. A log handler that reads
/// settings gets them from the copy as it is in memory, or else, while something fails, each read
/// would make the record of the next one.
class Inside {
 public:
  Inside() noexcept : isNested_(std::exchange(isThread, true)) {}
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
  ~Inside() { isThread = isNested_; }

  bool isNested() const noexcept { return isNested_; }

 private:
  static thread_local bool isThread;
  bool isNested_;
};
thread_local bool Inside::isThread = false;

std::unique_ptr<UserDefaults> domainNamed(const std::string& name) {
  auto domain = UserDefaults::domain(name);
  if (!domain) fatal("SecureDefaults: the domain's name can't be a folder's");
  return domain;
}

}  // namespace

struct SecureDefaults::State {
  ForkSafeTurn turn;  // makes one step of comparing, repairing and writing domain and copy
  ForkSafeLock lock{ForkSafeLock::Stage::service};  // guards what follows
  CorruptionHandler handler;
  /// The domain as it was when it was reported and could not be repaired.
  std::optional<std::optional<Entries>> unrepaired;
  bool isLossReported = false;
  /// What was logged when the copy could not be used, until it can be; guarded by `turn`.
  bool isCopyUsable = true;
  std::string told;

  void setRepaired() {
    const std::lock_guard guard(lock);
    unrepaired.reset();
  }
  /// False when it was so already.
  bool setUnrepaired(std::optional<Entries> domain) {
    const std::lock_guard guard(lock);
    if (unrepaired && *unrepaired == domain) return false;
    unrepaired.emplace(std::move(domain));
    return true;
  }
  /// Whether the copy can be compared with. What is wrong with it is a finding, once.
  bool isUsable(StorageState copy, Finding& finding) {
    turn.assertHeld();
    isCopyUsable = copy == StorageState::loaded || copy == StorageState::missing;
    if (isCopyUsable) told.clear();
    const std::lock_guard guard(lock);
    const bool isLost = copy == StorageState::damaged;
    if (isLost && !isLossReported) finding = DefaultsCorruptionReason::protectedCopyLost;
    if (copy != StorageState::unavailable) isLossReported = isLost;
    return isCopyUsable;
  }
};

SecureDefaults::SecureDefaults(std::string domainName, std::shared_ptr<KeyStorageProtocol> cache)
    : domainName_(std::move(domainName)),
      defs_(domainNamed(domainName_)),
      state_(std::make_unique<State>()),
      given_(std::move(cache)) {}

SecureDefaults::SecureDefaults(std::string domainName)
    : SecureDefaults(std::move(domainName), nullptr) {}

SecureDefaults::~SecureDefaults() = default;

std::shared_ptr<KeyStorageProtocol> SecureDefaults::makeCache() {
  fatal("Must be overwritten in subclass");
}

KeyStorageProtocol& SecureDefaults::cache() {
  return *cache_.get([this] { return given_ ? given_ : makeCache(); });
}

void SecureDefaults::setCorruptionHandler(CorruptionHandler handler) {
  const std::lock_guard guard(state_->lock);
  std::swap(state_->handler, handler);  // the old one is destroyed without the lock
}

void SecureDefaults::handleCorruption(DefaultsCorruptionReason reason) {
  CorruptionHandler handler;
  {
    const std::lock_guard guard(state_->lock);
    handler = state_->handler;
  }
  if (handler) handler(reason);
}

/// The value that was compared with its copy, or the copy's.
std::optional<PropertyList> SecureDefaults::compared(std::string_view key) {
  KeyStorageProtocol& copy = cache();  // made without a lock
  Finding finding;
  {
    const Inside inside;
    if (inside.isNested()) return copy.object(key);
    const DeferredLog log;
    const std::lock_guard guard(state_->turn);
    finding = compareLk(key);
    if (!state_->isCopyUsable) log.dropRepetition(state_->told);
  }
  if (finding) report(*finding, key);
  return copy.object(key);
}

void SecureDefaults::report(DefaultsCorruptionReason reason, std::string_view key) {
  if (reason == DefaultsCorruptionReason::protectedCopyLost) {
    logError(site,
             "The protected copy of {} is damaged; its settings can't be changed until the "
             "application sets the copy anew",
             domainName_);
  } else if (!isSilent()) {
    logError(site, "Default {} was changed in defaults.plist", key);
  }
  handleCorruption(reason);
}

/// Compares the value of `key` with its copy, and repairs the domain where they differ. Nobody is
/// accused but of what was seen while all others were excluded, with a copy that was just read.
SecureDefaults::Finding SecureDefaults::compareLk(std::string_view key) {
  state_->turn.assertHeld();
  const auto isEqual = [&](const Entries& entries) {
    return isSame(found(entries, key), cache().object(key));
  };
  // An old file that somebody put back equals a memory that is as old.
  if (!cache().isOutdated() && isEqual(persistentDomain())) return {};
  Finding finding;
  // Before anybody is excluded: a keychain that hangs holds up nobody else.
  if (!state_->isUsable(reload(cache()), finding)) return finding;
  auto domain = defs_->persistentDomain();
  if (isEqual(domain.value_or(Entries{}))) return {};

  bool isChanged = false;
  const auto edit = [&](Entries& entries) {
    if (!state_->isUsable(reload(cache()), finding)) return false;
    const bool isFinished = finishPending(entries, cache());
    isChanged = !isEqual(entries);
    if (isChanged) entries = contentOf(cache());
    return isFinished || isChanged;
  };
  const bool isDone = defs_->change(edit, [&](bool isStored) {
    if (isStored) clearPendingLk();
  });
  if (isDone) {
    state_->setRepaired();
    return isChanged ? DefaultsCorruptionReason::changedOutside : finding;
  }
  if (!isChanged || !state_->setUnrepaired(std::move(domain))) return finding;
  logError(site, "Failed to restore defaults.plist of {}", domainName_);
  return DefaultsCorruptionReason::changedOutside;
}

void SecureDefaults::clearPendingLk() {
  state_->turn.assertHeld();
  if (!cache().object(pendingKey)) return;
  KeyStorageProtocol::Changes changes;
  changes.emplace(pendingKey, std::nullopt);
  cache().setObjects(std::move(changes));
}

std::optional<PropertyList> SecureDefaults::object(std::string_view key) {
  if (skipValidating) return defs_->object(key);
  Stored stored = compared(key);
  if (auto value = found(argumentDomain(), key)) return value;
  return stored ? std::move(stored) : defs_->registeredObject(key);
}

/// The value if it is of that very type.
template <class Content>
std::optional<Content> SecureDefaults::validated(std::string_view key) {
  auto value = object(key);
  auto* const content = value ? std::get_if<Content>(&value->value) : nullptr;
  if (content == nullptr) return std::nullopt;
  return std::move(*content);
}

bool SecureDefaults::boolValue(std::string_view key) {
  const auto value = object(key);
  return value && boolFrom(*value);
}

std::int64_t SecureDefaults::integer(std::string_view key) {
  const auto value = object(key);
  return value ? integerFrom(*value) : 0;
}

double SecureDefaults::doubleValue(std::string_view key) {
  const auto value = object(key);
  return value ? doubleFrom(*value) : 0;
}

std::optional<std::string> SecureDefaults::string(std::string_view key) {
  const auto value = object(key);
  return value ? stringFrom(*value) : std::nullopt;
}

std::optional<PropertyList::Data> SecureDefaults::data(std::string_view key) {
  return validated<PropertyList::Data>(key);
}

std::optional<PropertyList::Date> SecureDefaults::date(std::string_view key) {
  return validated<PropertyList::Date>(key);
}

std::optional<PropertyList::Array> SecureDefaults::array(std::string_view key) {
  return validated<PropertyList::Array>(key);
}

std::optional<PropertyList::Dictionary> SecureDefaults::dictionary(std::string_view key) {
  return validated<PropertyList::Dictionary>(key);
}

std::optional<std::string> SecureDefaults::url(std::string_view key) {
  auto text = validated<std::string>(key);
  return text && isUrl(*text) ? std::move(text) : std::nullopt;
}

bool SecureDefaults::setObject(std::optional<PropertyList> value, std::string_view key) {
  if (!value) return write(std::nullopt, key);
  const auto entry = asReadBack(key, *std::move(value));
  return entry && write(entry->second, entry->first);
}

bool SecureDefaults::write(const std::optional<PropertyList>& value, std::string_view key) {
  cache();
  Finding finding;
  bool isWritten = false;
  {
    const Inside inside;
    const DeferredLog log;
    const std::lock_guard guard(state_->turn);
    isWritten = writeLk(value, key, finding);
  }
  if (finding) report(*finding, key);
  return isWritten;
}

bool SecureDefaults::writeLk(const Stored& value, std::string_view key, Finding& finding) {
  state_->turn.assertHeld();
  if (key == pendingKey || !state_->isUsable(reload(cache()), finding)) return false;
  Stored before;
  bool isCopied = false;
  const auto setCopy = [&](const Stored& content, Entries pending) {
    KeyStorageProtocol::Changes changes;
    changes.emplace(key, content);
    changes.emplace(pendingKey, pendingValue(std::move(pending)));
    return cache().setObjects(std::move(changes));
  };
  const auto edit = [&](Entries& entries) {
    if (!state_->isUsable(reload(cache()), finding)) return false;
    Entries pending = pendingIn(cache());
    const bool isFinished = finishPending(entries, cache());
    before = cache().object(key);
    addPending(pending, key, before);
    isCopied = isSame(before, value) || setCopy(value, std::move(pending));
    if (!isCopied) return false;
    if (isSame(found(entries, key), value)) return isFinished;
    put(entries, key, value);
    return true;
  };
  const bool isDone = defs_->change(edit, [&](bool isStored) {
    if (isStored) {
      if (isCopied) clearPendingLk();
    } else if (!isSame(before, value)) {  // the domain may hold it all the same
      Entries pending = pendingIn(cache());
      addPending(pending, key, value);
      setCopy(before, std::move(pending));
    }
  });
  return isDone && isCopied;
}

bool SecureDefaults::removeObject(std::string_view key) {
  return setObject(std::nullopt, key);
}

bool SecureDefaults::setBool(bool value, std::string_view key) {
  return setObject(PropertyList(value), key);
}

bool SecureDefaults::setInteger(std::int64_t value, std::string_view key) {
  return setObject(PropertyList(value), key);
}

bool SecureDefaults::setDouble(double value, std::string_view key) {
  return setObject(PropertyList(value), key);
}

bool SecureDefaults::setString(std::string value, std::string_view key) {
  return setObject(PropertyList(std::move(value)), key);
}

bool SecureDefaults::setData(PropertyList::Data value, std::string_view key) {
  return setObject(PropertyList(std::move(value)), key);
}

bool SecureDefaults::setDate(PropertyList::Date value, std::string_view key) {
  return setObject(PropertyList(value), key);
}

bool SecureDefaults::setArray(PropertyList::Array value, std::string_view key) {
  return setObject(PropertyList(std::move(value)), key);
}

bool SecureDefaults::setDictionary(PropertyList::Dictionary value, std::string_view key) {
  return setObject(PropertyList(std::move(value)), key);
}

bool SecureDefaults::setUrl(std::string value, std::string_view key) {
  return isUrl(value) && setString(std::move(value), key);
}

void SecureDefaults::registerDefaults(Entries entries) {
  defs_->registerDefaults(std::move(entries));
}

Entries SecureDefaults::persistentDomain() {
  return defs_->persistentDomain().value_or(Entries{});
}

bool SecureDefaults::setPersistentDomain(Entries entries) {
  const DeferredLog log;
  const std::lock_guard guard(state_->turn);
  return defs_->setPersistentDomain(std::move(entries));
}

}  // namespace velum
