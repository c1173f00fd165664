#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "Velum/Platform/Linux/Secrets/SecretChoice.h"
#include "Velum/Platform/Linux/Secrets/SecretStoreLinux.h"
#include "Velum/Platform/Linux/Secrets/SecretWorkers.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/NoRoom.h"
#include "tests/support/SecretService.h"

namespace velum {
namespace {

using test::SecretServiceEnvironment;
using testing::UnorderedElementsAre;

constexpr std::chrono::seconds patient(60);
constexpr std::chrono::milliseconds hasty(300);

const SecretQuery token{"com.example.vpn", "token", {}, false};

SecretQuery inGroup(SecretQuery query, const std::string& group) {
  query.accessGroup = group;
  query.usesDataProtectionKeychain = true;
  return query;
}

std::string valueOf(SecretStore& store, const SecretQuery& query) {
  const SecretResult result = store.copyMatching(query);
  return result.status == errSecSuccess ? std::string(textView(result.data))
                                        : "status " + std::to_string(result.status);
}

std::string recordedChoice(const test::SecretEnvironment& environment) {
  return test::readFile(environment.storeFolder() + "/secret-store");
}

bool hasVault(const test::SecretEnvironment& environment) {
  return std::filesystem::exists(environment.storeFolder() + "/vault");
}

/// What every store must do, wherever it keeps the items.
void expectStoreBehaviour(SecretStore& store) {
  EXPECT_EQ(store.copyMatching(token).status, errSecItemNotFound);
  EXPECT_EQ(store.update(token, secretBytes("x")), errSecItemNotFound);
  EXPECT_EQ(store.remove(token), errSecItemNotFound);
  EXPECT_EQ(store.add(token, secretBytes("first")), errSecSuccess);
  EXPECT_EQ(store.add(token, secretBytes("again")), errSecDuplicateItem);
  EXPECT_EQ(valueOf(store, token), "first");
  EXPECT_EQ(store.update(token, secretBytes("second")), errSecSuccess);
  EXPECT_EQ(valueOf(store, token), "second");

  SecretBytes large(std::size_t{1} << 20U);
  for (std::size_t index = 0; index < large.size(); ++index) {
    large[index] = static_cast<std::uint8_t>(index * 131 >> 3U);
  }
  for (const SecretBytes& value :
       {secretBytes(""), secretBytes(std::string_view("a\0b\xFF\n\0", 6)), large}) {
    EXPECT_EQ(store.update(token, value), errSecSuccess);
    EXPECT_TRUE(store.copyMatching(token).data == value) << value.size() << " bytes";
  }
  EXPECT_EQ(store.add(token, SecretBytes((std::size_t{16} << 20U) + 1)), errSecErrnoBase + EFBIG);

  // Neither an access group's item nor another service's is ever taken for another.
  const SecretQuery grouped = inGroup(token, "TEAM.shared");
  const SecretQuery other = inGroup(token, "TEAM.other");
  const SecretQuery foreign{"com.example.mail", "tök €n", {}, false};
  EXPECT_EQ(store.copyMatching(grouped).status, errSecItemNotFound);
  EXPECT_EQ(store.add(grouped, secretBytes("grouped")), errSecSuccess);
  EXPECT_EQ(store.add(other, secretBytes("other")), errSecSuccess);
  EXPECT_EQ(store.add(foreign, secretBytes("foreign")), errSecSuccess);
  EXPECT_THAT(store.list(token.service).items, UnorderedElementsAre(token, grouped, other));
  EXPECT_THAT(store.list({}).items, UnorderedElementsAre(token, grouped, other, foreign));
  EXPECT_EQ(store.remove(token), errSecSuccess);
  EXPECT_EQ(store.copyMatching(token).status, errSecItemNotFound);
  EXPECT_EQ(valueOf(store, grouped), "grouped");
  EXPECT_EQ(valueOf(store, other), "other");
  EXPECT_EQ(store.copyMatching(inGroup(token, "")).status, errSecItemNotFound);

  for (const std::string& bad : {std::string("\xFF"), std::string("a\0b", 3)}) {
    EXPECT_EQ(store.add({token.service, bad, {}, false}, secretBytes("x")), errSecInvalidData);
    EXPECT_EQ(store.list(bad).status, errSecInvalidData);
  }
  EXPECT_TRUE(store.searchList(SecPreferencesDomain::system).keychains.empty());
}

TEST(SecretStore, KeepsItemsInTheSecretService) {
  SecretServiceEnvironment environment;
  const test::ScopedVariable socketAlone("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
  SecretStoreLinux store(patient);
  expectStoreBehaviour(store);
  const SecKeychainList keychains = store.searchList(SecPreferencesDomain::user);
  ASSERT_EQ(keychains.keychains.size(), 1U);
  EXPECT_EQ(keychains.keychains[0].name, "/org/freedesktop/secrets/collection/login");
  EXPECT_EQ(recordedChoice(environment), "service\n");
  EXPECT_FALSE(hasVault(environment));
}

TEST(SecretStore, KeepsItemsInTheVaultWhereThereIsNoBus) {
  const test::SecretEnvironment environment;
  SecretStoreLinux store(patient);
  expectStoreBehaviour(store);
  const SecKeychainList keychains = store.searchList(SecPreferencesDomain::user);
  ASSERT_EQ(keychains.keychains.size(), 1U);
  EXPECT_EQ(keychains.keychains[0].name, environment.storeFolder() + "/vault");
  EXPECT_EQ(recordedChoice(environment), "vault\n");
}

TEST(SecretStore, ShowsItemsInPasswordManagersAndLeavesTheirsAlone) {
  SecretServiceEnvironment environment;
  SecretStoreLinux store(patient);
  const test::BusPointer bus = environment.bus().connect();
  constexpr const char* service = "org.freedesktop.secrets";
  constexpr const char* collection = "/org/freedesktop/secrets/collection/login";
  const auto reply = [](sd_bus_message* message) {
    return std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>(message,
                                                                            &sd_bus_message_unref);
  };

  // Somebody else's item with the same attributes.
  sd_bus_message* answer = nullptr;
  ASSERT_GE(sd_bus_call_method(bus.get(), service, "/org/freedesktop/secrets",
                               "org.freedesktop.Secret.Service", "OpenSession", nullptr, &answer,
                               "sv", "plain", "s", ""),
            0);
  auto opened = reply(answer);
  const char* session = nullptr;
  ASSERT_GE(sd_bus_message_skip(answer, "v"), 0);
  ASSERT_GE(sd_bus_message_read(answer, "o", &session), 0);
  const std::string sessionPath = session;
  ASSERT_GE(sd_bus_call_method(bus.get(), service, collection, "org.freedesktop.Secret.Collection",
                               "CreateItem", nullptr, nullptr, "a{sv}(oayays)b", 2,
                               "org.freedesktop.Secret.Item.Label", "s", "Theirs",
                               "org.freedesktop.Secret.Item.Attributes", "a{ss}", 3, "service",
                               token.service.c_str(), "account", token.account.c_str(),
                               "accessGroup", "", sessionPath.c_str(), 0, 1, 'x', "text/plain", 0),
            0);
  EXPECT_EQ(store.copyMatching(token).status, errSecItemNotFound);
  EXPECT_EQ(store.add(token, secretBytes("ours")), errSecSuccess);
  EXPECT_EQ(store.remove(token), errSecSuccess);
  EXPECT_EQ(store.add(token, secretBytes("ours")), errSecSuccess);

  std::vector<std::string> labels;
  for (int number = 1; number < 9; ++number) {
    char* label = nullptr;
    if (sd_bus_get_property_string(bus.get(), service,
                                   (std::string(collection) + '/' + std::to_string(number)).c_str(),
                                   "org.freedesktop.Secret.Item", "Label", nullptr, &label) >= 0) {
      labels.emplace_back(label);
      std::free(label);  // NOLINT(*-no-malloc)
    }
  }
  EXPECT_THAT(labels, UnorderedElementsAre("Theirs", "token (com.example.vpn)"));

  // This service forgets the type of what it is given.
  const test::BusPointer monitor = environment.bus().connect(test::PrivateBus::Role::monitor);
  for (const auto& [value, type] :
       {std::pair("text", "text/plain"), std::pair("\xFF", "application/octet-stream")}) {
    ASSERT_EQ(store.update(token, secretBytes(value)), errSecSuccess);
    const char* told = "nothing";
    const auto hears = [&, expected = type] {
      if (sd_bus_process(monitor.get(), &answer) <= 0 || answer == nullptr) return false;
      const auto message = reply(answer);
      if (sd_bus_message_is_method_call(answer, nullptr, "SetSecret") <= 0) return false;
      EXPECT_GE(sd_bus_message_enter_container(answer, 'r', "oayays"), 0);
      EXPECT_GE(sd_bus_message_skip(answer, "oayay"), 0);
      EXPECT_GE(sd_bus_message_read(answer, "s", &told), 0);
      EXPECT_STREQ(told, expected);
      return true;
    };
    ASSERT_TRUE(test::eventually(hears));
  }
}

TEST(SecretStore, TellsLockedFromMissing) {
  SecretServiceEnvironment environment;
  SecretStoreLinux store(patient);
  ASSERT_EQ(store.add(token, secretBytes("value")), errSecSuccess);
  environment.lock();
  const SecretQuery missing{"com.example.vpn", "missing", {}, false};
  for (const SecretQuery& query : {token, missing}) {
    EXPECT_EQ(store.copyMatching(query).status, errSecInteractionNotAllowed) << query.account;
    EXPECT_EQ(store.add(query, secretBytes("new")), errSecInteractionNotAllowed);
    EXPECT_EQ(store.update(query, secretBytes("new")), errSecInteractionNotAllowed);
    EXPECT_EQ(store.remove(query), errSecInteractionNotAllowed);
  }
  EXPECT_EQ(store.list({}).status, errSecInteractionNotAllowed);
  environment.service().kill();
  environment.start();  // unlocked again
  EXPECT_EQ(valueOf(store, token), "value");
  EXPECT_EQ(store.copyMatching(missing).status, errSecItemNotFound);
}

TEST(SecretStore, TakesAServiceThatLostItsKeyringsForNoAnswer) {
  SecretServiceEnvironment environment;
  SecretStoreLinux store(patient);
  const std::string mark = environment.storeFolder() + "/secret-service-used";
  const std::string kept = environment.folder() + "/kept";
  using Login = SecretServiceEnvironment::Login;
  const auto restartWithout = [&](Login login) {
    environment.service().kill();
    std::filesystem::remove_all(environment.keyrings());
    environment.start(login);
  };
  EXPECT_EQ(store.copyMatching(token).status, errSecItemNotFound);
  {
    const test::NoRoom noRoom;
    EXPECT_EQ(store.add(token, secretBytes("value")), errSecErrnoBase + EFBIG) << "unmarked";
  }
  ASSERT_EQ(store.add(token, secretBytes("value")), errSecSuccess);
  std::filesystem::remove(mark);
  EXPECT_EQ(valueOf(store, token), "value");  // marks what an earlier version stored

  std::filesystem::copy(environment.keyrings(), kept, std::filesystem::copy_options::recursive);
  restartWithout(Login::leavesKeyring);
  const test::CapturedLog log;
  EXPECT_EQ(store.copyMatching(token).status, errSecNotAvailable);
  EXPECT_EQ(store.add(token, secretBytes("new")), errSecNotAvailable);
  EXPECT_EQ(store.update(token, secretBytes("new")), errSecNotAvailable);
  EXPECT_EQ(store.remove(token), errSecNotAvailable);
  EXPECT_EQ(store.list({}).status, errSecNotAvailable);
  EXPECT_EQ(store.searchList(SecPreferencesDomain::user).status, errSecNotAvailable);
  EXPECT_EQ(log.count("on purpose, remove " + mark), 6U);
  {
    std::filesystem::remove(environment.storeFolder() + "/secret-store");
    const test::ScopedVariable noBus("DBUS_SESSION_BUS_ADDRESS", "disabled:");
    EXPECT_EQ(store.copyMatching(token).status, errSecNotAvailable) << "no reason for a vault";
  }
  environment.service().kill();
  std::filesystem::remove_all(environment.keyrings());
  std::filesystem::rename(kept, environment.keyrings());
  environment.start();
  EXPECT_EQ(valueOf(store, token), "value");
  restartWithout(Login::opensKeyring);
  EXPECT_EQ(store.copyMatching(token).status, errSecItemNotFound) << "the login made a new one";
  restartWithout(Login::leavesKeyring);
  std::filesystem::remove(mark);
  EXPECT_EQ(store.copyMatching(token).status, errSecItemNotFound);
  EXPECT_EQ(store.add(token, secretBytes("new")), errSecInteractionNotAllowed)
      << "the first use again, which asks for a password for the keyring that it makes";
}

TEST(SecretStore, TellsARefusedPromptFromOneThatNobodyAnswers) {
  SecretServiceEnvironment environment;
  const test::ScopedVariable display("DISPLAY", ":99");
  SecretStoreLinux store(patient);
  SecretStoreLinux hastyStore(hasty);
  ASSERT_EQ(store.add(token, secretBytes("value")), errSecSuccess);
  environment.lock();
  // Who shows prompts is a program on the bus; without it they count as refused.
  EXPECT_EQ(store.copyMatching(token).status, errSecUserCanceled);
  EXPECT_EQ(store.add({"new", "new", {}, false}, secretBytes("x")), errSecUserCanceled);

  test::BusPointer prompter = environment.bus().connect();
  ASSERT_GE(sd_bus_request_name(prompter.get(), "org.gnome.keyring.SystemPrompter", 0), 0);
  while (sd_bus_process(prompter.get(), nullptr) > 0) continue;
  const SecretQuery other{"new", "new", {}, false};
  EXPECT_EQ(hastyStore.add(other, secretBytes("x")), errSecTimedOut);
  // On a loaded machine the time may have been up before there was a prompt.
  ASSERT_TRUE(test::eventually([&] {
    if (test::isReadable(sd_bus_get_fd(prompter.get()), std::chrono::milliseconds(0))) return true;
    hastyStore.add(other, secretBytes("x"));
    return false;
  }));
  EXPECT_EQ(store.copyMatching(token).status, errSecInteractionNotAllowed)
      << "a second prompt behind the one that is open";
  prompter.reset();
  EXPECT_TRUE(
      test::eventually([&] { return store.copyMatching(token).status == errSecUserCanceled; }));
  EXPECT_FALSE(test::hasEnded(environment.service().pid(), std::chrono::milliseconds(0)))
      << "the service did not bear how its prompt was left";
}

TEST(SecretStore, RefusesAForkedChildAndNoticesThatTheServiceIsGoneAndBack) {
  SecretServiceEnvironment environment;
  SecretStoreLinux store(patient);
  ASSERT_EQ(store.add(token, secretBytes("value")), errSecSuccess);
  test::inChild([&] { EXPECT_EQ(store.copyMatching(token).status, errSecNotAvailable); });
  const auto before = test::openDescriptors();
  for (int round = 0; round < 3; ++round) {
    environment.service().kill();
    EXPECT_EQ(store.add(token, secretBytes("x")), errSecNotAvailable);
    environment.start();
    EXPECT_EQ(valueOf(store, token), "value");
  }
  EXPECT_TRUE(test::eventually([&] { return test::openDescriptors() <= before; }))
      << test::openDescriptors();
  environment.bus().daemon().kill();
  EXPECT_EQ(store.copyMatching(token).status, errSecNotAvailable);
  EXPECT_FALSE(hasVault(environment));
  EXPECT_EQ(recordedChoice(environment), "service\n");
}

TEST(SecretStore, LeavesAHungServiceInTimeAndComesBackToIt) {
  SecretServiceEnvironment environment;
  SecretStoreLinux store(std::chrono::milliseconds(100));
  ASSERT_TRUE(test::eventually([&] {  // a loaded machine may need longer than we are ready to wait
    const SecretStatus status = store.add(token, secretBytes("value"));
    return status == errSecSuccess || status == errSecDuplicateItem;
  }));
  environment.service().signal(SIGSTOP);
  // One call waits, the next one doesn't.
  ASSERT_TRUE(test::eventually([&] {
    return store.add({"late", "late", {}, false}, secretBytes("x")) == errSecTimedOut;
  }));
  EXPECT_EQ(store.copyMatching(token).status, errSecNotAvailable);
  environment.service().signal(SIGCONT);
  EXPECT_TRUE(test::eventually([&] { return valueOf(store, token) == "value"; }));
  SecretStoreLinux another(patient);
  EXPECT_EQ(another.copyMatching({"late", "late", {}, false}).status, errSecItemNotFound)
      << "a call that was reported as failed was done later";
}

TEST(SecretChoice, HoldsWhenTheServiceComes) {
  SecretServiceEnvironment environment(SecretServiceEnvironment::Start::later);
  SecretStoreLinux store(patient);
  EXPECT_EQ(store.copyMatching(token).status, errSecItemNotFound);
  EXPECT_EQ(recordedChoice(environment), "vault\n") << "a search chooses too";
  ASSERT_EQ(store.add(token, secretBytes("in the vault")), errSecSuccess);
  environment.start();
  EXPECT_EQ(valueOf(store, token), "in the vault");
  std::filesystem::remove(environment.storeFolder() + "/secret-store");
  EXPECT_EQ(valueOf(store, token), "in the vault") << "the record was lost, the vault was not";
  EXPECT_EQ(recordedChoice(environment), "vault\n");
}

TEST(SecretChoice, IsNotMadeWhileItIsUncertain) {
  SecretServiceEnvironment environment;
  environment.service().signal(SIGSTOP);
  {
    SecretStoreLinux store(hasty);
    EXPECT_EQ(store.add(token, secretBytes("x")), errSecTimedOut);
  }
  EXPECT_EQ(recordedChoice(environment), "");
  environment.service().kill();

  // One that could be started, but is not up to it.
  test::writeFile(environment.bus().servicesFolder() + "/secrets.service",
                  "[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/bin/false\n");
  SecretStoreLinux store(patient);
  environment.bus().reload();
  EXPECT_EQ(store.add(token, secretBytes("x")), errSecNotAvailable);
  {
    const test::ScopedVariable address("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere");
    EXPECT_EQ(store.add(token, secretBytes("x")), errSecNotAvailable) << "a bus that is down";
  }
  EXPECT_EQ(recordedChoice(environment), "");
  EXPECT_FALSE(hasVault(environment));
}

TEST(SecretChoice, IsThatOfTheFirstOrUnreadable) {
  const test::SecretEnvironment environment;
  const PrivateFolder folder(environment.storeFolder());
  SecretCall call;
  call.lockLimit = patient;
  const SecretChoice choice = chooseSecretPlace(folder, call, [&] {
    folder.replace(secretChoiceFileName, secretBytes("vault\n"));  // another process
    return SecretPlaceKind::service;
  });
  EXPECT_EQ(choice.kind, SecretPlaceKind::vault);
  folder.replace(secretChoiceFileName, secretBytes("vau"));
  EXPECT_EQ(SecretStoreLinux(patient).add(token, secretBytes("x")), errSecDecode);
  EXPECT_FALSE(hasVault(environment));
}

TEST(SecretWorkers, ServeOthersWhileSomeHang) {
  SecretWorkers workers(std::chrono::nanoseconds(0));
  const auto run = [&](SecretWorkers::Work work, std::chrono::milliseconds limit) {
    return workers.run(std::move(work), SecretCall::Clock::now() + limit);
  };
  for (int round = 0; round < 2; ++round) {
    std::promise<void> end;
    const auto ended = end.get_future().share();
    int hanging = 0;
    EXPECT_TRUE(test::eventually([&] {
      auto work = std::make_shared<bool>();  // gone with the work that never begins
      const std::weak_ptr<bool> begun = work;
      run([work = std::move(work), ended](auto&) { ended.wait(); }, std::chrono::milliseconds(10));
      if (!begun.expired()) ++hanging;
      return hanging == SecretWorkers::maximumAbandoned - 1;
    }));
    EXPECT_EQ(run([](auto&) {}, patient), SecretWorkers::End::done);
    end.set_value();
  }
}

}  // namespace
}  // namespace velum
