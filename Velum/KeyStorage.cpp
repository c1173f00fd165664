#include "Velum/KeyStorage.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/Fatal.h"
#include "Velum/Base/ProcessFlag.h"
#include "Velum/Concurrency/ForkSafeLock.h"
#include "Velum/Logger/DeferredLog.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Sealing/StorageError.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "Velum/KeyStorage";
constexpr std::string_view abstractOperation = "Must be implemented in subclass";

std::chrono::nanoseconds duration(double seconds) {
  if (!(seconds > 0)) return {};  // not a number is no delay either
  return std::max(std::chrono::nanoseconds(1), bounded(std::chrono::duration<double>(seconds)));
}

void wipe(PropertyList& list) noexcept {
  if (auto* text = std::get_if<std::string>(&list.value)) {
    velum::wipe(*text);
  } else if (auto* data = std::get_if<PropertyList::Data>(&list.value)) {
    velum::wipe(data->data(), data->size());
  } else if (auto* array = std::get_if<PropertyList::Array>(&list.value)) {
    for (auto& element : *array) wipe(element);
  } else if (auto* dictionary = std::get_if<PropertyList::Dictionary>(&list.value)) {
    for (auto& [key, element] : *dictionary) wipe(element);
  }
}

/// A dictionary that can be written as it is, and an index that finds an entry without comparing
/// its way down a tree. Values are wiped when they go.
class Cache {
 public:
  Cache() = default;
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;
  ~Cache() { wipe(root_); }

  const PropertyList& root() const noexcept { return root_; }
  const PropertyList::Dictionary& entries() const { return *root_.get<PropertyList::Dictionary>(); }

  const PropertyList* find(std::string_view key) const {
    const auto found = index_.find(key);
    return found == index_.end() ? nullptr : found->second;
  }

  void set(std::string_view key, PropertyList value) {
    if (const auto found = index_.find(key); found != index_.end()) {
      wipe(*found->second);
      *found->second = std::move(value);
      return;
    }
    const auto entry = dictionary().emplace(key, std::move(value)).first;
    index_.emplace(entry->first, &entry->second);
  }

  void remove(std::string_view key) {
    const auto entry = dictionary().find(key);
    if (entry == dictionary().end()) return;
    wipe(entry->second);
    index_.erase(entry->first);
    dictionary().erase(entry);
  }

  void replace(PropertyList::Dictionary content) {
    index_.clear();
    wipe(root_);
    dictionary() = std::move(content);
    index_.reserve(dictionary().size());
    for (auto& [key, value] : dictionary()) index_.emplace(key, &value);
  }

 private:
  PropertyList::Dictionary& dictionary() { return std::get<PropertyList::Dictionary>(root_.value); }

  PropertyList root_;
  std::unordered_map<std::string_view, PropertyList*> index_;  // into the nodes of root_
};

/// The dictionary in `bytes`. Throws StorageError when there is none.
PropertyList::Dictionary decoded(const SecretBytes& bytes, std::string_view function) {
  constexpr const char* isOther = "The decoded object is not a dictionary";
  auto list = PropertyList::read(textView(bytes));
  if (!list) throw StorageError("The data is not a property list, or it exceeds the limits of one");
  if (auto* dictionary = std::get_if<PropertyList::Dictionary>(&list->value)) {
    return std::move(*dictionary);
  }
  logError({sourceFile, function}, "{}", isOther);
  throw StorageErrorLogged(isOther);
}

StorageState stateAfter(const std::exception& error) {
  const bool isSeen = dynamic_cast<const StorageError*>(&error) != nullptr &&
                      dynamic_cast<const StorageUnavailable*>(&error) == nullptr;
  return isSeen ? StorageState::damaged : StorageState::unavailable;
}

void log(const std::exception& error, std::string_view function, std::string_view what) {
  if (dynamic_cast<const StorageErrorLogged*>(&error) != nullptr) return;
  logError({sourceFile, function}, "{}: {}", what, error.what());
}

}  // namespace

struct KeyStorageBase::State {
  State(std::string label, double delay)
      : queue(DispatchQueue::serial(std::move(label))), writeDelay(duration(delay)) {}

  Changes presentLk(const Changes& wanted) const;
  void applyLk(Changes& wanted);

  const std::shared_ptr<DispatchQueue> queue;
  const std::chrono::nanoseconds writeDelay;

  ForkSafeLock lock{ForkSafeLock::Stage::service};
  Cache cache;
  // What the parent has not written yet is the parent's to write, not a forked child's: by the time
  // the child ends, it would be older than what is stored.
  ProcessFlag dirty;
  std::uint64_t changes = 0;
  // The changes between two writes are a period; its first change schedules its one write. What is
  // scheduled for a period that something else has written finds another number and does nothing.
  std::uint64_t period = 0;
  ProcessFlag isScheduled;
  bool isComplete = false;  // `cache` was read or reset: nothing is stored that it doesn't know
  // There is stored content that `load` could not get at. What was removed since stays removed.
  bool isUnread = false;
  std::set<std::string, std::less<>> removedUnread;
  bool isDamaged = false;  // what is stored, and not replaced yet

  ForkSafeTurn writing;               // held while the back end works
  KeyStorageBase* storage = nullptr;  // guarded by `writing`; null once `finish` has run
};

namespace {

/// The right to use the back end, for one thread at a time. Inside of the back end's operations
/// the thread has it already.
template <class State>
class BackEndTurn {
 public:
  explicit BackEndTurn(State& state) : state_(state), isNested_(state.writing.isHeld()) {
    if (!isNested_) state_.writing.lock();
  }
  BackEndTurn(const BackEndTurn&) = delete;
  BackEndTurn& operator=(const BackEndTurn&) = delete;
  ~BackEndTurn() {
    if (!isNested_) state_.writing.unlock();
  }

  bool isNested() const noexcept { return isNested_; }

 private:
  DeferredLog log_;  // over after the turn
  State& state_;
  bool isNested_;
};

}  // namespace

KeyStorageBase::KeyStorageBase(std::string queueLabel, double writeDelay)
    : state_(std::make_shared<State>(std::move(queueLabel), writeDelay)) {
  state_->storage = this;
}

KeyStorageBase::~KeyStorageBase() {
  const BackEndTurn turn(*state_);
  state_->storage = nullptr;
}

bool KeyStorageBase::isEmpty() const {
  const std::lock_guard guard(state_->lock);
  return state_->cache.entries().empty();
}

std::optional<PropertyList> KeyStorageBase::object(std::string_view key) const {
  const std::lock_guard guard(state_->lock);
  const PropertyList* const value = state_->cache.find(key);
  if (value == nullptr) return std::nullopt;
  return *value;
}

bool KeyStorageBase::setObject(std::optional<PropertyList> value, std::string_view key) {
  Changes changes;
  changes.emplace(key, std::move(value));
  if (value) wipe(*value);  // NOLINT(bugprone-use-after-move): the same
  {
    const std::lock_guard guard(state_->lock);
    state_->applyLk(changes);
  }
  return writeChange();
}

bool KeyStorageBase::setObjects(Changes changes) {
  Changes before;
  bool isAlone = false;
  std::uint64_t number = 0;
  {
    const std::lock_guard guard(state_->lock);
    isAlone = state_->writeDelay.count() == 0 && !state_->dirty && !state_->isUnread;
    if (isAlone) before = state_->presentLk(changes);
    state_->applyLk(changes);
    number = state_->changes;
  }
  const bool isWritten = writeChange();
  if (!isWritten && isAlone) {
    const std::lock_guard guard(state_->lock);
    if (state_->changes == number) {
      state_->applyLk(before);
      state_->dirty = false;
    }
  }
  for (auto& [key, value] : before) {
    if (value) wipe(*value);
  }
  return isWritten;
}

/// What is stored under the keys of what is wanted.
KeyStorageProtocol::Changes KeyStorageBase::State::presentLk(const Changes& wanted) const {
  lock.assertHeld();
  Changes present;
  for (const auto& [key, value] : wanted) {
    const PropertyList* const old = cache.find(key);
    present.emplace(key, old != nullptr ? std::optional(*old) : std::nullopt);
  }
  return present;
}

void KeyStorageBase::State::applyLk(Changes& wanted) {
  lock.assertHeld();
  for (auto& [key, value] : wanted) {
    if (value) {
      cache.set(key, std::move(*value));
      wipe(*value);  // NOLINT(bugprone-use-after-move): what moving leaves of a short text
    } else {
      cache.remove(key);
      if (isUnread) removedUnread.emplace(key);
    }
  }
  dirty = true;
  ++changes;
}

/// Writes what was changed, or sees to it that it is written in time.
bool KeyStorageBase::writeChange() {
  // Jobs of the queue do nothing but this, so the queue's thread need not be the one.
  if (state_->writeDelay.count() == 0) return store();
  std::uint64_t period = 0;
  {
    const std::lock_guard guard(state_->lock);
    if (!state_->dirty || state_->isScheduled) return true;
    state_->isScheduled = true;
    period = ++state_->period;
  }
  state_->queue->asyncAfter(state_->writeDelay, writeJob(period));
  return true;
}

PropertyList::Dictionary KeyStorageBase::dictionaryRepresentation() const {
  const std::lock_guard guard(state_->lock);
  return state_->cache.entries();
}

bool KeyStorageBase::reset(std::optional<PropertyList::Dictionary> content) {
  {
    const std::lock_guard guard(state_->lock);
    state_->cache.replace(std::move(content).value_or(PropertyList::Dictionary{}));
    state_->dirty = true;
    ++state_->changes;
    state_->isComplete = true;
    state_->isUnread = false;
    state_->removedUnread.clear();
  }
  return store();
}

StorageState KeyStorageBase::load() {
  constexpr std::string_view function = "load()";
  const BackEndTurn turn(*state_);
  try {
    const auto bytes = loadData();
    auto content = bytes ? std::optional(decoded(*bytes, function)) : std::nullopt;
    const std::lock_guard guard(state_->lock);
    state_->isComplete = true;
    state_->isUnread = false;
    state_->isDamaged = false;
    if (!content) return StorageState::missing;
    state_->cache.replace(*std::move(content));
    state_->dirty = false;
    state_->isScheduled = false;
    return StorageState::loaded;
  } catch (const std::exception& error) {
    const StorageState state = stateAfter(error);
    {
      const std::lock_guard guard(state_->lock);
      state_->isDamaged = state == StorageState::damaged;
      state_->isUnread = !state_->isDamaged && !state_->isComplete;
    }
    log(error, function, "Failed to load stored cache");
    return state;
  }
}

bool KeyStorageBase::store() {
  const BackEndTurn turn(*state_);
  if (!turn.isNested()) return writeLk();
  state_->queue->async(writeJob(std::nullopt));  // the write that called this one comes first
  return true;
}

/// Writes the changes of `period` if they are not written yet; any changes when there is none.
Work KeyStorageBase::writeJob(std::optional<std::uint64_t> period) const {
  return [weak = std::weak_ptr(state_), period] {
    const auto state = weak.lock();
    if (!state) return;
    const BackEndTurn turn(*state);
    if (state->storage == nullptr) return;
    if (period) {
      const std::lock_guard guard(state->lock);
      if (!state->isScheduled || state->period != *period) return;
      state->isScheduled = false;
    }
    state->storage->writeLk();
  };
}

/// Whether nothing is left to be written.
bool KeyStorageBase::writeLk() {
  constexpr std::string_view function = "store()";
  const unsigned generation = forkGeneration();
  std::optional<std::string> bytes;
  bool isWritten = false;
  try {
    readUnreadLk();
    {
      const std::lock_guard guard(state_->lock);
      if (!state_->dirty) return true;
      bytes = state_->cache.root().readableBinary();
      state_->dirty = false;
      state_->isScheduled = false;
    }
    if (!bytes) throw StorageError("The values are too deep or too large to be read again");
    storeData(*bytes);
    isWritten = true;
    const std::lock_guard guard(state_->lock);
    state_->isDamaged = false;
  } catch (const std::exception& error) {
    if (generation == forkGeneration()) {  // else it was the parent's write
      const std::lock_guard guard(state_->lock);
      state_->dirty = true;
    }
    log(error, function, "Failed to store cache");
  }
  if (bytes) wipe(*bytes);
  return isWritten;
}

/// Adds the stored content that could not be read before to what was changed since.
void KeyStorageBase::readUnreadLk() {
  {
    const std::lock_guard guard(state_->lock);
    if (!state_->isUnread || !state_->dirty) return;
  }
  std::optional<PropertyList::Dictionary> content;
  bool isDamaged = false;
  try {
    if (const auto bytes = loadData()) content = decoded(*bytes, "store()");
  } catch (const std::exception& error) {
    if (stateAfter(error) == StorageState::unavailable) throw;
    isDamaged = true;
    log(error, "store()", "Failed to load stored cache");
  }
  const std::lock_guard guard(state_->lock);
  if (content) {
    for (auto& [key, value] : *content) {
      if (state_->cache.find(key) == nullptr && !state_->removedUnread.contains(key)) {
        state_->cache.set(key, std::move(value));
      }
      wipe(value);  // what is not wanted, and what moving leaves
    }
  }
  state_->isComplete = true;
  state_->isUnread = false;
  state_->isDamaged = isDamaged;
  state_->removedUnread.clear();
}

bool KeyStorageBase::isDamaged() const {
  const std::lock_guard guard(state_->lock);
  return state_->isDamaged;
}

std::optional<SecretBytes> KeyStorageBase::loadData() {
  fatal(abstractOperation);
}

void KeyStorageBase::storeData(std::string_view /*bytes*/) {
  fatal(abstractOperation);
}

void KeyStorageBase::deleteData() {
  fatal(abstractOperation);
}

void KeyStorageBase::finish() noexcept {
  const BackEndTurn turn(*state_);
  writeLk();
  state_->storage = nullptr;
}

}  // namespace velum
