#include "Velum/KeyChain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <nlohmann/json.hpp>

#include "Velum/KeyChainData.h"
#include "Velum/KeyChainStorage.h"
#include "Velum/SecureStorage.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/FakeSecretStore.h"
#include "tests/support/TemporaryFolder.h"

// This program lies in a bundle, VELUM_BUNDLE_IDENTIFIER.

namespace velum {
namespace {

using test::CapturedLog;
using test::FakeSecretStore;
using testing::ElementsAre;
using testing::IsEmpty;

using Call = FakeSecretStore::Call;

const SecretQuery plain{.service = "service", .account = "key", .accessGroup = {}};
const SecretQuery grouped{.service = "service",
                          .account = "key",
                          .accessGroup = "group",
                          .usesDataProtectionKeychain = true};

TEST(KeyChain, SavesWithAsFewWritesAsPossible) {
  FakeSecretStore store;
  for (const SecretQuery& query : {plain, grouped}) {
    const CapturedLog log;
    const auto expectCalls = [&](const char* value, const std::vector<Call>& calls) {
      EXPECT_EQ(KeyChain::save("key", secretBytes(value), "service", query.accessGroup, store), 0);
      EXPECT_EQ(store.takeCalls(), calls);
    };
    expectCalls("one", {{"copyMatching", query}, {"add", query}});
    expectCalls("two", {{"copyMatching", query}, {"update", query}});
    expectCalls("two", {{"copyMatching", query}});
    EXPECT_EQ(KeyChain::load("key", "service", query.accessGroup, store), secretBytes("two"));
    store.takeCalls();
    const std::string record =
        "D: (KeyChain: save(key:value:service:accessGroup:)) Keychain value for key key ";
    EXPECT_THAT(log.texts(),
                ElementsAre(record + "doesn't exist - adding", record + "exists - updating",
                            record + "exists - updating"));
  }
  EXPECT_EQ(KeyChain::remove("key", "service", "group", store), 0);
  EXPECT_EQ(KeyChain::load("key", "service", {}, store), secretBytes("two"));
}

TEST(KeyChain, KeepsMissingApartFromOutOfReach) {
  const CapturedLog log;
  FakeSecretStore store;
  EXPECT_EQ(KeyChain::loadResult("key", "service", {}, store).status, errSecItemNotFound);
  EXPECT_FALSE(KeyChain::load("key", "service", {}, store));
  EXPECT_THAT(log.texts(), IsEmpty());

  for (const SecretStatus status : {errSecInteractionNotAllowed, errSecTimedOut}) {
    store.takeCalls();
    store.failWith(status);
    EXPECT_EQ(KeyChain::save("key", secretBytes("v"), "service", {}, store), status);
    EXPECT_THAT(store.takeCalls(), ElementsAre(Call{"copyMatching", plain}));
    const CapturedLog failures;
    EXPECT_EQ(KeyChain::loadResult("key", "service", {}, store).status, status);
    EXPECT_FALSE(KeyChain::load("key", "service", {}, store));
    EXPECT_EQ(failures.count("Failed to find key in Keychain. " + secretStatusText(status)), 2U);
  }
  // A number that has no text stands for itself.
  store.failWith(-7);
  EXPECT_FALSE(KeyChain::load("key", "service", {}, store));
  EXPECT_TRUE(log.has("Failed to find key in Keychain. -7"));
  EXPECT_FALSE(KeyChain::keychain(SecPreferencesDomain::system, store));
  EXPECT_TRUE(log.has("Failed searching for keychain in SecPreferencesDomain(rawValue: 1)-7"));
}

struct Account {
  std::string name;
  double balance = 0;
  std::map<std::string, std::vector<int>> devices;
  NLOHMANN_DEFINE_TYPE_INTRUSIVE(Account, name, balance, devices)
  bool operator==(const Account&) const = default;
};

TEST(KeyChain, StoresObjectsAsJson) {
  FakeSecretStore store;
  const Account account{"a/b \xE2\x82\xAC\"", 1.5, {{"x", {1, 2}}}};
  EXPECT_EQ(KeyChain::saveObject(account, "key", "service", {}, store), 0);
  EXPECT_EQ(textView(store.items().at(0).value),
            R"({"balance":1.5,"devices":{"x":[1,2]},"name":"a\/b €\""})");
  EXPECT_EQ(KeyChain::loadObject<Account>("key", "service", {}, store), account);
  // An encoder that leaves slashes alone is understood too; so are single values.
  KeyChain::save("key", secretBytes(R"("a/b\/c")"), "service", {}, store);
  EXPECT_EQ(KeyChain::loadObject<std::string>("key", "service", {}, store), "a/b/c");
  EXPECT_FALSE(KeyChain::loadObject<std::string>("other", "service", {}, store));
}

TEST(KeyChain, RefusesWhatJsonCantExpressAndJsonOfAnotherForm) {
  const CapturedLog log;
  FakeSecretStore store;
  const auto save = [&](const auto& value) {
    return KeyChain::saveObject(value, "key", "service", {}, store);
  };
  EXPECT_EQ(save(std::string("hidden\xFF")), -67673);
  EXPECT_EQ(save(Account{"hidden", std::numeric_limits<double>::infinity(), {}}), -67673);
  EXPECT_THAT(store.takeCalls(), IsEmpty());
  EXPECT_EQ(log.count("Failed to encode value "), 2U);
  EXPECT_TRUE(log.has("saveObject(_:key:service:accessGroup:)"));
  EXPECT_TRUE(log.has("Account for key 'key'. "));

  const std::string deep = std::string(2'000'000, '[') + std::string(2'000'000, ']');
  std::size_t refused = 0;
  for (const std::string& bytes : std::initializer_list<std::string>{
           "", "hidden", R"({"hidden":)", "\"hidden\xFF\"", R"([1, "hidden"])",
           R"({"name": "hidden"})", "[[[[[[[[", deep}) {
    KeyChain::save("key", secretBytes(bytes), "service", {}, store);
    EXPECT_FALSE(KeyChain::loadObject<Account>("key", "service", {}, store)) << bytes;
    EXPECT_EQ(log.count(": loadObject(key:service:accessGroup:)) Failed to decode data for key "
                        "'key'. "),
              ++refused);
  }
  EXPECT_FALSE(log.has("hidden"));
}

TEST(KeyChainData, ReadsOnceAndFollowsWhatItStores) {
  FakeSecretStore store;
  KeyChainData data("key", store);
  EXPECT_FALSE(data.data());
  EXPECT_EQ(data.read().status, errSecItemNotFound);
  EXPECT_TRUE(data.store(secretBytes("one")));
  store.takeCalls();
  EXPECT_EQ(data.data(), secretBytes("one"));
  EXPECT_THAT(store.takeCalls(), IsEmpty());
  EXPECT_EQ(KeyChainData("key", store).data(), secretBytes("one"));

  EXPECT_TRUE(data.store(std::nullopt));
  EXPECT_THAT(store.items(), IsEmpty());
  EXPECT_FALSE(data.data());
  EXPECT_TRUE(data.store(secretBytes("two")));
  KeyChain::remove("key", {}, {}, store);
  EXPECT_EQ(data.readAgain().status, errSecItemNotFound);
  EXPECT_FALSE(data.data()) << "what is gone is kept";
}

TEST(KeyChainData, IsReadAgainWhereItDoesNotFit) {
  FakeSecretStore store;
  const test::TemporaryFolder folder;
  const auto make = [&] {
    return std::make_unique<SecureStorage>(std::make_shared<KeyChainData>("key", store),
                                           folder / "sealed", 0);
  };
  const auto replaceBoth = [&](bool value) {
    KeyChain::remove("key", {}, {}, store);
    EXPECT_TRUE(make()->setObject(PropertyList(value), "value"));
  };
  replaceBoth(false);
  const auto storage = make();
  store.failWith(errSecInteractionNotAllowed);
  EXPECT_EQ(make()->load(), StorageState::unavailable);
  store.failWith(errSecSuccess);
  EXPECT_EQ(storage->load(), StorageState::loaded);
  replaceBoth(true);
  EXPECT_EQ(storage->load(), StorageState::loaded) << "took another key's content for damaged";
  EXPECT_EQ(storage->object("value"), PropertyList(true));
  replaceBoth(false);
  EXPECT_TRUE(storage->setObject(PropertyList(true), "ours"));
  EXPECT_EQ(make()->load(), StorageState::loaded) << "sealed with a key that is gone";
  store.takeCalls();
  EXPECT_TRUE(storage->setObject(PropertyList(false), "ours"));
  EXPECT_THAT(store.takeCalls(), IsEmpty()) << "the file is as it was left";
}

TEST(KeyChainData, SaysWhenItCantStore) {
  const CapturedLog log;
  FakeSecretStore store;
  KeyChainData data("key", store);
  store.failWritesWith(errSecNotAvailable);
  EXPECT_FALSE(data.store(secretBytes("hidden")));
  EXPECT_TRUE(log.has("Failed to store key: status -25291"));
  EXPECT_FALSE(data.data());
  store.failWith(errSecSuccess);
  EXPECT_FALSE(data.store(std::nullopt));
  EXPECT_TRUE(log.has("Failed to delete key: status -25300"));
  EXPECT_FALSE(log.has("hidden"));

  store.takeCalls();
  KeyChainData empty("", store);
  EXPECT_FALSE(empty.store(secretBytes("v")) || empty.data());
  EXPECT_THAT(store.takeCalls(), IsEmpty());
}

TEST(KeyChainStorage, LivesInOneItem) {
  const CapturedLog log;
  FakeSecretStore store;
  KeyChainStorage storage("settings", store);
  EXPECT_EQ(storage.load(), StorageState::missing);
  EXPECT_TRUE(storage.setObject(PropertyList(std::string("hidden")), "name"));
  ASSERT_EQ(store.items().size(), 1U);  // written before setObject returned
  EXPECT_EQ(store.items()[0].query.account, "settings");
  EXPECT_EQ(store.items()[0].query.service, VELUM_BUNDLE_IDENTIFIER);
  EXPECT_TRUE(textView(store.items()[0].value).starts_with("bplist00"));
  KeyChainStorage other("settings", store);
  EXPECT_EQ(other.load(), StorageState::loaded);
  EXPECT_EQ(other.object("name"), PropertyList(std::string("hidden")));
  store.failWith(errSecInteractionNotAllowed);
  EXPECT_EQ(storage.load(), StorageState::unavailable);
  EXPECT_FALSE(storage.setObject(PropertyList(true), "new"));
  EXPECT_EQ(log.count("Failed to store"), 1U);
  store.failWith(errSecSuccess);
  EXPECT_TRUE(storage.store());
  KeyChain::save("settings", secretBytes("damaged"), {}, {}, store);
  EXPECT_EQ(storage.load(), StorageState::damaged);
  EXPECT_TRUE(storage.reset(std::nullopt));
  EXPECT_EQ(KeyChain::load("settings.damaged", {}, {}, store), secretBytes("damaged"));
  storage.deleteData();
  EXPECT_EQ(KeyChain::loadResult("settings", {}, {}, store).status, errSecItemNotFound);
  storage.deleteData();
  EXPECT_TRUE(log.has("Failed to delete settings: -25300"));
  EXPECT_TRUE(log.has("Load from settings") && log.has("Store to settings"));
  EXPECT_FALSE(log.has("hidden"));
}

}  // namespace
}  // namespace velum
