#include "Velum/Vault/Vault.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "tests/support/Hex.h"
#include "tests/support/Inspection.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using fs::perms;

const SecretName token{"com.example.vpn", "token", ""};

class VaultFile : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return folder / ("store/" + name); }
  std::string content() const { return test::readFile(path("vault")); }

  /// What comes of a call, as keychains tell it.
  SecretStatus status(const std::function<void(Vault&)>& work) const {
    try {
      const PrivateFolder store(folder / "store");
      Vault vault(store, call);
      work(vault);
      return errSecSuccess;
    } catch (const SecretFailure& failure) {
      return failure.status();
    } catch (const SystemError& error) {
      return errSecErrnoBase + error.code();
    }
  }
  std::string value() const {
    std::string found;
    const SecretStatus read = status([&](Vault& vault) { found = textView(vault.read(token)); });
    return read == errSecSuccess ? found : "status " + std::to_string(read);
  }
  SecretStatus readStatus() const {
    return status([](Vault& vault) { vault.read(token); });
  }
  SecretStatus add(const SecretName& name, const char* value) const {
    return status([&](Vault& vault) { vault.add(name, secretBytes(value)); });
  }
  SecretStatus update(const char* value) const {
    return status([&](Vault& vault) { vault.update(token, secretBytes(value)); });
  }

  /// A vault with the item `token`.
  void fill() const { ASSERT_EQ(add(token, "value"), errSecSuccess); }

  test::TemporaryFolder folder;
  SecretCall call{.deadline = SecretCall::Clock::time_point::max(),
                  .lockLimit = std::chrono::seconds(60)};
};

TEST_F(VaultFile, ClosesItsFilesToOthersAndShowsNothing) {
  const mode_t before = ::umask(0);
  fill();
  ::umask(before);
  EXPECT_EQ(test::modeOf(folder / "store"), 0700);
  for (const char* name : {"vault", "vault-key", "lock"}) {
    EXPECT_EQ(test::modeOf(path(name)), 0600) << name;
  }
  for (const char* shown : {"token", "value", "com.example"}) {
    EXPECT_EQ(content().find(shown), std::string::npos) << shown;
  }
  const std::string first = content();
  EXPECT_EQ(update("value"), errSecSuccess);
  EXPECT_NE(content(), first) << "the same nonce twice";
}

TEST_F(VaultFile, OpensWhatIsStoredSinceTheFirstVersion) {
  fill();
  test::writeFile(
      path("vault-key"),
      test::bytesOfHex("1282a5aa5e2b61d53dbbbc9337f9e18b1c1c2e5cbde83f29a42e237fcda10103"));
  test::writeFile(
      path("vault"),
      test::bytesOfHex("56656c566c7400014a20521955d53014a5b59dc9cfd03b7dba2e9888c62ce6342a7aa8fd34"
                       "facb8592ee8383b05ee654e11862e8c441d872edc4575ef16e2b48dacf609ee8b6174b8da0"
                       "7e1eb4dd098b5a"));
  EXPECT_EQ(value(), "value");
}

TEST_F(VaultFile, LeavesADamagedFileAlone) {
  fill();
  const std::string whole = content();
  for (const std::string& damaged :
       {whole + '\0', whole.substr(0, 1), whole.substr(0, whole.size() - 1), std::string()}) {
    test::writeFile(path("vault"), damaged);
    EXPECT_EQ(readStatus(), errSecDecode) << damaged.size();
    EXPECT_EQ(update("new"), errSecDecode) << damaged.size();
    EXPECT_EQ(content(), damaged);
  }
}

TEST_F(VaultFile, TakesItsKeyFromTheServiceManager) {
  call.credentialsFolder = folder / "credentials";
  const std::string file = folder / "credentials/velum-vault-key";
  test::writeFile(file, std::string(31, 'k'));
  fs::permissions(file, perms::owner_read | perms::owner_write | perms::group_read);
  EXPECT_EQ(add(token, "x"), errSecDecode) << "31 bytes are no key";
  test::writeFile(file, std::string(32, 'k'));
  fill();
  EXPECT_EQ(value(), "value");
  EXPECT_FALSE(fs::exists(path("vault-key")));
  fs::permissions(file, perms::owner_read | perms::others_read);
  EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM);
  fs::remove(file);
  EXPECT_EQ(readStatus(), errSecDecode) << "it was sealed with the key that is gone";
  EXPECT_EQ(add({"a", "b", ""}, "x"), errSecDecode);
  EXPECT_FALSE(fs::exists(path("vault-key"))) << "a new key for old content";
}

TEST_F(VaultFile, RefusesWhatOthersCouldHavePlanted) {
  fill();
  const std::string vault = path("vault");
  const std::string kept = folder / "kept";
  fs::permissions(vault, perms::owner_read | perms::group_read);
  EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM);
  fs::permissions(vault, perms::owner_read | perms::owner_write);
  fs::rename(vault, kept);
  fs::create_symlink(kept, vault);
  EXPECT_EQ(readStatus(), errSecErrnoBase + ELOOP);
  fs::remove(vault);
  ASSERT_EQ(::mkfifo(vault.c_str(), 0600), 0);
  EXPECT_EQ(readStatus(), errSecErrnoBase + EINVAL);
  fs::remove(vault);
  fs::rename(kept, vault);
  if (::geteuid() == 0) {  // only root can give files away
    ASSERT_EQ(::chown(vault.c_str(), 12345, 12345), 0);
    EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM);
    ASSERT_EQ(::chown(vault.c_str(), 0, 0), 0);
  }
  fs::create_directory(vault + ".new");  // where a write could go
  EXPECT_EQ(update("new"), errSecSuccess);

  fs::permissions(folder / "store", perms::owner_all | perms::others_exec);
  EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM);
  fs::rename(folder / "store", folder / "moved");
  fs::create_symlink(folder / "moved", folder / "store");
  EXPECT_EQ(readStatus(), errSecErrnoBase + ENOTDIR);
}

TEST_F(VaultFile, DoesNotWaitForALockForEver) {
  fill();
  const UniqueFd lock(::open(path("lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
  call.lockLimit = std::chrono::nanoseconds(0);
  EXPECT_EQ(update("too late"), errSecTimedOut);
  EXPECT_EQ(value(), "value") << "readers need no lock";
  ASSERT_EQ(::flock(lock.get(), LOCK_UN), 0);
  call.deadline = {};
  EXPECT_EQ(update("too late"), errSecTimedOut);
  EXPECT_EQ(value(), "value") << "its caller had gone while it waited for the lock";
}

}  // namespace
}  // namespace velum
