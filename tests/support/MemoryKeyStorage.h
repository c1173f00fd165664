#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "Velum/KeyStorageProtocol.h"

namespace velum::test {

/// A key storage whose stored content is in memory too. Several may share the content, as programs
/// share a file. Thread-safe.
class MemoryKeyStorage final : public KeyStorageProtocol {
 public:
  struct Content {
    std::mutex mutex;
    PropertyList::Dictionary entries;
  };

  explicit MemoryKeyStorage(std::shared_ptr<Content> stored = std::make_shared<Content>())
      : stored_(std::move(stored)) {}

  bool isEmpty() const override { return dictionaryRepresentation().empty(); }
  std::optional<PropertyList> object(std::string_view key) const override {
    const std::lock_guard guard(mutex_);
    const auto entry = cache_.find(key);
    if (entry == cache_.end()) return std::nullopt;
    return entry->second;
  }
  void setObject(std::optional<PropertyList> value, std::string_view key) override {
    {
      const std::lock_guard guard(mutex_);
      cache_.erase(std::string(key));
      if (value) cache_.emplace(key, *std::move(value));
      dirty_ = true;
    }
    store();
  }
  PropertyList::Dictionary dictionaryRepresentation() const override {
    const std::lock_guard guard(mutex_);
    return cache_;
  }
  void reset(std::optional<PropertyList::Dictionary> content) override {
    {
      const std::lock_guard guard(mutex_);
      cache_ = std::move(content).value_or(PropertyList::Dictionary{});
      dirty_ = true;
    }
    store();
  }
  void load() override {
    const std::scoped_lock guard(mutex_, stored_->mutex);
    cache_ = stored_->entries;
    dirty_ = false;
  }
  void store() override {
    const std::scoped_lock guard(mutex_, stored_->mutex);
    if (dirty_) stored_->entries = cache_;
    dirty_ = false;
  }

 private:
  std::shared_ptr<Content> stored_;
  mutable std::mutex mutex_;
  PropertyList::Dictionary cache_;
  bool dirty_ = false;
};

}  // namespace velum::test
