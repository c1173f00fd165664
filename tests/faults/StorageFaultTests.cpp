// Every system call of the storages fails once, and once the process is killed there.

#include "Velum/Base/SystemError.h"
#include "Velum/Files/AtomicFile.h"
#include "Velum/Platform/Linux/Secrets/SecretStoreLinux.h"
#include "Velum/Platform/UserDefaults.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/SecureDefaults.h"
#include "Velum/SecureStorage.h"
#include "tests/faults/FaultTest.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/MemoryKey.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

const std::string oldContent = "old";
const std::string newContent(20'000, 'n');

/// What a storage holds after one value in it was replaced, or added where there was none.
void expectContent(const std::string& content, Outcome outcome) {
  if (outcome == Outcome::succeeded) {
    EXPECT_EQ(content, newContent);
  } else {
    EXPECT_TRUE(content == oldContent || content == newContent) << content.substr(0, 20);
  }
}

PropertyList text(std::string value) {
  return PropertyList(std::move(value));
}
std::string textOf(const std::optional<PropertyList>& value) {
  return value ? *value->get<std::string>() : "";
}

/// A bare session: secrets go to the vault.
void enterSession(const std::string& folder) {
  for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR"}) {
    ::setenv(name, folder.c_str(), 1);
  }
  for (const char* name :
       {"DBUS_SESSION_BUS_ADDRESS", "DISPLAY", "WAYLAND_DISPLAY", "CREDENTIALS_DIRECTORY"}) {
    ::unsetenv(name);
  }
}

/// Locks are missing on some file systems, and then nothing is excluded; what was left by a killed
/// process may be found, and be in the way, or not; a folder that could not be made can't be
/// opened.
bool isOfNoMatter(const GatedCall& call) {
  return call.isOneOf({"flock", "unlink", "stat", "getdents", "mkdir"}) ||
         call.subject.ends_with("/.");
}

TEST(Faults, AtomicFile) {
  std::string path;
  const auto replace = [&](const std::string& content) {
    try {
      AtomicFile(path, 0644).replace(content, "test");
    } catch (const SystemError&) {
      return false;
    }
    return true;
  };
  failEveryCall({
      .enter = [&](const std::string& folder) { path = folder + "/file"; },
      .prepare = [&] { replace(oldContent); },
      .run = [&] { return replace(newContent); },
      .verify = [&](Outcome outcome) { expectContent(readFile(path), outcome); },
      .mayHide = isOfNoMatter,
      .isDurable = true,
  });
}

TEST(Faults, UserDefaults) {
  std::unique_ptr<UserDefaults> defaults;
  failEveryCall({
      .enter =
          [&](const std::string& folder) {
            enterSession(folder);
            defaults = UserDefaults::domain("com.example");
          },
      .prepare = [&] { defaults->setObject("key", text(oldContent)); },
      .run = [&] { return defaults->setObject("key", text(newContent)); },
      .verify = [&](Outcome outcome) { expectContent(textOf(defaults->object("key")), outcome); },
      .mayHide = isOfNoMatter,
      .isDurable = true,
      .lock = "/defaults.plist.lock",
  });
}

TEST(Faults, Vault) {
  SealedBox(SealedBox::newKey()).seal({});  // the library reads its settings once
  std::unique_ptr<SecretStore> store;
  const SecretQuery token{"service", "account", {}, false};
  const auto value = [&] {
    const SecretResult result = store->copyMatching(token);
    return std::string(result.data.begin(), result.data.end());
  };
  FaultyOperation operation{
      .enter =
          [&](const std::string& folder) {
            enterSession(folder);
            store = std::make_unique<SecretStoreLinux>(std::chrono::seconds(10));
          },
      .prepare = [&] { store->add(token, secretBytes(oldContent)); },
      .run = [&] { return store->update(token, secretBytes(newContent)) == errSecSuccess; },
      .verify = [&](Outcome outcome) { expectContent(value(), outcome); },
      // Whether there is a bus does not matter any more where the vault was chosen.
      .mayHide =
          [](const GatedCall& call) {
            return isOfNoMatter(call) || call.subject.ends_with("/bus");
          },
      .isDurable = true,
      .lock = "/lock",
  };
  failEveryCall(operation);

  operation.lock.clear();     // the choice is looked up without it first
  operation.prepare = [] {};  // the first secret of all, with the choice of place and the key
  operation.run = [&] { return store->add(token, secretBytes(newContent)) == errSecSuccess; };
  operation.again = [&] { return operation.run() || value() == newContent; };
  operation.verify = [&](Outcome outcome) {
    const SecretStatus status = store->copyMatching(token).status;
    if (outcome == Outcome::succeeded || status == errSecSuccess) {
      EXPECT_EQ(value(), newContent);
    } else {
      EXPECT_EQ(status, errSecItemNotFound);
    }
  };
  failEveryCall(operation);
}

/// With a key that every process of the test knows.
std::shared_ptr<SecureStorage> sealed(const std::string& folder) {
  auto storage = std::make_shared<SecureStorage>(
      std::make_shared<MemoryKey>(SecretBytes(SealedBox::keySize, 7)), folder + "/sealed", 0);
  storage->load();
  return storage;
}

TEST(Faults, GuardedSettings) {
  std::unique_ptr<SecureDefaults> defaults;
  std::string folder;
  const auto make = [&] {
    defaults = std::make_unique<SecureDefaults>("com.example", sealed(folder));
    defaults->setCorruptionHandler(
        [](auto) { ADD_FAILURE() << "takes it for an intruder's work"; });
  };
  failEveryCall({
      .enter =
          [&](const std::string& path) {
            folder = path;
            enterSession(folder);
            make();
          },
      .prepare = [&] { defaults->setString(oldContent, "key"); },
      .run =
          [&] {
            const CapturedLog log;
            return defaults->setString(newContent, "key") && !log.has("Failed");
          },
      .verify =
          [&](Outcome outcome) {
            if (outcome == Outcome::killed) defaults->setBool(true, "other");
            expectContent(defaults->string("key").value_or(""), outcome);
            make();  // and what the next process finds
            expectContent(defaults->string("key").value_or(""), outcome);
          },
      .mayHide = isOfNoMatter,
      .isDurable = true,
  });
}

}  // namespace
}  // namespace velum::test
