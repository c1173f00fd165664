#include "Velum/SecureDefaults.h"

#include <utility>

#include "Velum/DefaultsConversions.h"
#include "Velum/Fatal.h"
#include "Velum/ForkSafeLock.h"
#include "Velum/Logger/DeferredLog.h"
#include "Velum/Logger/Logger.h"

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

/// Equal in type and content. A number that is none is equal to itself, or else a domain that holds
/// one would have to be repaired for ever.
bool isSame(const Stored& left, const Stored& right) {
  if (left == right) return true;
  return left && right && left->binary() == right->binary();
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
  /// The domain as it was when it could not be repaired; reads of it go to the copy.
  std::optional<std::optional<Entries>> unrepaired;

  bool isUnrepaired() {
    const std::lock_guard guard(lock);
    return unrepaired.has_value();
  }
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
};

SecureDefaults::SecureDefaults(std::string domainName, std::shared_ptr<KeyStorageProtocol> cache)
    : domainName_(std::move(domainName)),
      defs_(domainNamed(domainName_)),
      state_(std::make_unique<State>()),
      cache_(std::move(cache)) {}

SecureDefaults::SecureDefaults(std::string domainName)
    : SecureDefaults(std::move(domainName), nullptr) {}

SecureDefaults::~SecureDefaults() = default;

std::shared_ptr<KeyStorageProtocol> SecureDefaults::makeCache() {
  fatal("Must be overwritten in subclass");
}

KeyStorageProtocol& SecureDefaults::cache() {
  std::call_once(cacheOnce_, [this] {
    if (!cache_) cache_ = makeCache();
  });
  return *cache_;
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

void SecureDefaults::repairIfChanged(std::string_view key) {
  cache();  // made without a lock
  {
    const DeferredLog log;  // handlers may read settings
    const std::lock_guard guard(state_->turn);
    if (!findChangeLk(key)) return;
  }
  if (!isSilent()) logError(site, "Default {} was changed in defaults.plist", key);
  handleCorruption(DefaultsCorruptionReason::changedOutside);
}

/// Repairs the domain when the value of `key` was changed in it. Returns whether there is a change
/// to be reported.
bool SecureDefaults::findChangeLk(std::string_view key) {
  state_->turn.assertHeld();
  auto domain = defs_->persistentDomain();
  if (isSame(found(domain.value_or(Entries{}), key), cache_->object(key))) return false;

  bool isChanged = true;
  const bool isRepaired = defs_->change([&](Entries& entries) {
    // Somebody who shares the copy may have written both. None of them does so just now.
    cache_->store();
    cache_->load();
    isChanged = !isSame(found(entries, key), cache_->object(key));
    if (isChanged) entries = cache_->dictionaryRepresentation();
    return isChanged;
  });
  if (isRepaired) {
    state_->setRepaired();
    return isChanged;
  }
  if (!state_->setUnrepaired(std::move(domain))) return false;
  logError(site, "Failed to restore defaults.plist of {}", domainName_);
  return true;
}

/// The value as a look-up finds it.
std::optional<PropertyList> SecureDefaults::current(std::string_view key) {
  if (skipValidating || !state_->isUnrepaired()) return defs_->object(key);
  if (auto value = found(argumentDomain(), key)) return value;
  if (auto value = cache().object(key)) return value;
  return defs_->registeredObject(key);
}

std::optional<PropertyList> SecureDefaults::object(std::string_view key) {
  return validate(key, [&] { return current(key); });
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
  KeyStorageProtocol& copy = cache();
  const DeferredLog log;
  const std::lock_guard guard(state_->turn);
  Stored before;
  bool isCopyChanged = false;
  const bool isWritten = defs_->change([&](Entries& entries) {
    if (entries != copy.dictionaryRepresentation()) {  // perhaps by somebody who shares the copy
      copy.store();
      copy.load();
    }
    before = copy.object(key);
    isCopyChanged = !isSame(before, value);
    if (isCopyChanged) copy.setObject(value, key);
    if (isSame(found(entries, key), value)) return false;
    entries.erase(std::string(key));
    if (value) entries.emplace(key, *value);
    return true;
  });
  if (!isWritten && isCopyChanged) copy.setObject(std::move(before), key);
  return isWritten;
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
