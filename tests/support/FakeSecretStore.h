#pragma once

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Platform/SecretStore.h"

namespace velum::test {

/// A secret store in memory that can be told to fail, and that notes what is asked of it.
class FakeSecretStore final : public SecretStore {
 public:
  struct Call {
    std::string name;
    SecretQuery query;
    bool operator==(const Call&) const = default;
  };
  struct Item {
    SecretQuery query;
    SecretBytes value;
  };

  /// Every call ends with `status` from now on; 0: they work again.
  void failWith(SecretStatus status) { set(status, status); }
  /// Only calls that write do.
  void failWritesWith(SecretStatus status) { set(errSecSuccess, status); }

  std::vector<Call> takeCalls() {
    const std::lock_guard guard(mutex_);
    return std::exchange(calls_, {});
  }
  std::vector<Item> items() const {
    const std::lock_guard guard(mutex_);
    return items_;
  }

  SecretResult copyMatching(const SecretQuery& query) override {
    const std::lock_guard guard(mutex_);
    calls_.push_back({"copyMatching", query});
    if (readStatus_ != errSecSuccess) return {.status = readStatus_, .data = {}};
    const auto item = find(query);
    if (item == items_.end()) return {.status = errSecItemNotFound, .data = {}};
    return {.status = errSecSuccess, .data = item->value};
  }
  SecretStatus add(const SecretQuery& query, const SecretBytes& value) override {
    return write("add", query, &value);
  }
  SecretStatus update(const SecretQuery& query, const SecretBytes& value) override {
    return write("update", query, &value);
  }
  SecretStatus remove(const SecretQuery& query) override { return write("remove", query, nullptr); }
  SecretList list(const std::optional<std::string>& /*service*/) override { return {}; }
  SecKeychainList searchList(SecPreferencesDomain /*domain*/) override {
    return {.status = readStatus_, .keychains = {{"first"}, {"second"}}};
  }

 private:
  void set(SecretStatus read, SecretStatus write) {
    const std::lock_guard guard(mutex_);
    readStatus_ = read;
    writeStatus_ = write;
  }

  std::vector<Item>::iterator find(const SecretQuery& query) {
    return std::find_if(items_.begin(), items_.end(),
                        [&](const Item& item) { return item.query == query; });
  }

  SecretStatus write(const char* name, const SecretQuery& query, const SecretBytes* value) {
    const std::lock_guard guard(mutex_);
    calls_.push_back({name, query});
    if (writeStatus_ != errSecSuccess) return writeStatus_;
    const auto item = find(query);
    const bool isNew = std::string_view(name) == "add";
    if (isNew != (item == items_.end())) return isNew ? errSecDuplicateItem : errSecItemNotFound;
    if (isNew) {
      items_.push_back({query, *value});
    } else if (value != nullptr) {
      item->value = *value;
    } else {
      items_.erase(item);
    }
    return errSecSuccess;
  }

  mutable std::mutex mutex_;
  std::vector<Item> items_;
  std::vector<Call> calls_;
  SecretStatus readStatus_ = errSecSuccess;
  SecretStatus writeStatus_ = errSecSuccess;
};

}  // namespace velum::test
