#pragma once

#include <exception>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <typeinfo>

#include "Velum/Base/SecretBytes.h"
#include "Velum/Platform/SecretStore.h"

namespace velum {

/// The gateway to the system's keychain: values by key (the item's account), service and access
/// group. Nothing as the service means the identifier of the main bundle; a program without one is
/// stopped. Stateless; any thread. Nothing throws. No record of a failure shows a value.
class KeyChain {
 public:
  using Service = std::optional<std::string>;
  using AccessGroup = std::optional<std::string>;

  /// Adds or updates the item; one that has the value already is not written. The status of the
  /// search, when that fails, else of the write.
  static SecretStatus save(const std::string& key, const SecretBytes& value,
                           const Service& service = {}, const AccessGroup& accessGroup = {},
                           SecretStore& store = SecretStore::shared());

  /// The value. Nothing when it is missing, or, with a record, when it can't be read.
  static std::optional<SecretBytes> load(const std::string& key, const Service& service = {},
                                         const AccessGroup& accessGroup = {},
                                         SecretStore& store = SecretStore::shared());

  /// The same for callers to whom it matters why there is nothing: the status is
  /// errSecItemNotFound only when the item is known to be missing.
  static SecretResult loadResult(const std::string& key, const Service& service = {},
                                 const AccessGroup& accessGroup = {},
                                 SecretStore& store = SecretStore::shared());

  /// Deletes the item. Logs nothing.
  static SecretStatus remove(const std::string& key, const Service& service = {},
                             const AccessGroup& accessGroup = {},
                             SecretStore& store = SecretStore::shared());

  /// Saves a value as JSON; errSecInvalidData when JSON can't express it. Who calls this or
  /// `loadObject` includes <nlohmann/json.hpp>; the others are spared its second of compile time.
  template <class Value, class Json = nlohmann::json>
  static SecretStatus saveObject(const Value& value, const std::string& key,
                                 const Service& service = {}, const AccessGroup& accessGroup = {},
                                 SecretStore& store = SecretStore::shared()) {
    SecretBytes bytes;
    try {
      bytes = encoded(Wiped<Json>(value).json);
    } catch (const std::exception& error) {
      logEncodeFailure(typeid(Value), key, error);
      return errSecInvalidData;
    }
    return save(key, bytes, service, accessGroup, store);
  }

  /// The value, decoded from JSON. Nothing when it is missing, can't be read or has another form.
  template <class Value, class Json = nlohmann::json>
  static std::optional<Value> loadObject(const std::string& key, const Service& service = {},
                                         const AccessGroup& accessGroup = {},
                                         SecretStore& store = SecretStore::shared()) {
    const auto bytes = load(key, service, accessGroup, store);
    if (!bytes) return std::nullopt;
    try {
      Wiped<Json> decoded(nullptr);
      decode(*bytes, decoded.json);
      return decoded.json.template get<Value>();
    } catch (const std::exception& error) {
      logDecodeFailure(key, error);
      return std::nullopt;
    }
  }

  /// The first keychain of the domain's search list.
  static std::optional<SecKeychain> keychain(SecPreferencesDomain domain,
                                             SecretStore& store = SecretStore::shared());

 private:
  /// A value that is wiped when it goes.
  template <class Json>
  struct Wiped {
    template <class Value>
    explicit Wiped(const Value& value) : json(value) {}
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;
    ~Wiped() { wipe(json); }

    Json json;
  };

  static SecretBytes encoded(const nlohmann::json& value);
  static void decode(const SecretBytes& bytes, nlohmann::json& value);
  static void wipe(nlohmann::json& value) noexcept;
  static void logEncodeFailure(const std::type_info& type, const std::string& key,
                               const std::exception& error);
  static void logDecodeFailure(const std::string& key, const std::exception& error);
};

}  // namespace velum
