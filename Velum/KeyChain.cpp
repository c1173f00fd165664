#include "Velum/KeyChain.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "Velum/Base/Fatal.h"
#include "Velum/Base/LazyValue.h"
#include "Velum/Json/Json.h"
#include "Velum/KeychainSearch.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Bundle.h"

namespace velum {
namespace {

constexpr std::string_view sourceFile = "Velum/KeyChain";

const std::string& mainBundleIdentifier() {
  static constinit LazyStatic<std::string> identifier;
  return identifier.get([] {
    const auto bundle = Bundle::main();
    if (!bundle || !bundle->identifier) fatal("The main bundle has no identifier");
    return *bundle->identifier;
  });
}

SecretQuery baseQuery(const std::string& key, const KeyChain::Service& service,
                      const KeyChain::AccessGroup& accessGroup) {
  return {.service = service ? *service : mainBundleIdentifier(),
          .account = key,
          .accessGroup = accessGroup,
          .usesDataProtectionKeychain = accessGroup.has_value()};
}

std::string typeName(const std::type_info& type) {
  int status = 0;
  struct Free {
    void operator()(char* text) const noexcept { std::free(text); }  // NOLINT(*-no-malloc)
  };
  const std::unique_ptr<char, Free> name(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status));
  return status == 0 ? name.get() : type.name();
}

/// What can be said of a failed conversion without quoting the value.
std::string description(const std::exception& error) {
  const auto* json = dynamic_cast<const nlohmann::json::exception*>(&error);
  return json != nullptr ? jsonErrorText(*json) : typeName(typeid(error));
}

}  // namespace

SecretStatus KeyChain::save(const std::string& key, const SecretBytes& value,
                            const Service& service, const AccessGroup& accessGroup,
                            SecretStore& store) {
  constexpr std::string_view function = "save(key:value:service:accessGroup:)";
  const SecretQuery query = baseQuery(key, service, accessGroup);
  const SecretResult found = store.copyMatching(query);
  switch (found.status) {
    case errSecSuccess:
      logDebug({sourceFile, function}, "Keychain value for key {} exists - updating", key);
      return found.data == value ? errSecSuccess : store.update(query, value);
    case errSecItemNotFound:
      logDebug({sourceFile, function}, "Keychain value for key {} doesn't exist - adding", key);
      return store.add(query, value);
    default:
      return found.status;
  }
}

std::optional<SecretBytes> KeyChain::load(const std::string& key, const Service& service,
                                          const AccessGroup& accessGroup, SecretStore& store) {
  SecretResult found = loadResult(key, service, accessGroup, store);
  if (found.status != errSecSuccess) return std::nullopt;
  return std::move(found.data);
}

SecretResult KeyChain::loadResult(const std::string& key, const Service& service,
                                  const AccessGroup& accessGroup, SecretStore& store) {
  SecretResult found = store.copyMatching(baseQuery(key, service, accessGroup));
  if (found.status != errSecSuccess && found.status != errSecItemNotFound) {
    logError({sourceFile, "load(key:service:accessGroup:)"}, "Failed to find {} in Keychain. {}",
             key, secretStatusText(found.status));
  }
  return found;
}

SecretStatus KeyChain::remove(const std::string& key, const Service& service,
                              const AccessGroup& accessGroup, SecretStore& store) {
  return store.remove(baseQuery(key, service, accessGroup));
}

std::optional<SecKeychain> KeyChain::keychain(SecPreferencesDomain domain, SecretStore& store) {
  return firstKeychain(domain, store.searchList(domain));
}

SecretBytes KeyChain::encoded(const nlohmann::json& value) {
  const auto text = jsonText<SecretText>(value);
  return {text.begin(), text.end()};
}

void KeyChain::decode(const SecretBytes& bytes, nlohmann::json& value) {
  value = parsedJson(bytes);
}

void KeyChain::wipe(nlohmann::json& value) noexcept {
  velum::wipe(value);
}

/// The value may be secret: its type stands for it.
void KeyChain::logEncodeFailure(const std::type_info& type, const std::string& key,
                                const std::exception& error) {
  logError({sourceFile, "saveObject(_:key:service:accessGroup:)"},
           "Failed to encode value {} for key '{}'. {}", typeName(type), key, description(error));
}

void KeyChain::logDecodeFailure(const std::string& key, const std::exception& error) {
  logError({sourceFile, "loadObject(key:service:accessGroup:)"},
           "Failed to decode data for key '{}'. {}", key, description(error));
}

}  // namespace velum
