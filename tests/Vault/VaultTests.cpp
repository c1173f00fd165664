#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Linux/Secrets/SecretStoreLinux.h"
#include "Velum/Vault/Vault.h"
#include "tests/support/Inspection.h"
#include "tests/support/SecretEnvironment.h"

namespace velum {
namespace {

using std::filesystem::perms;

constexpr std::chrono::seconds patient(60);
const SecretQuery token{"com.example.vpn", "token", {}, false};

class VaultFile : public testing::Test {
 protected:
  std::string path(const std::string& name) const { return environment.storeFolder() + '/' + name; }
  std::string content() const { return test::readFile(path("vault")); }

  std::string value(const SecretQuery& query = token) {
    const SecretResult result = store.copyMatching(query);
    return result.status == errSecSuccess ? std::string(textView(result.data))
                                          : "status " + std::to_string(result.status);
  }
  SecretStatus readStatus() { return store.copyMatching(token).status; }

  /// A vault with the item `token`.
  void fill() { ASSERT_EQ(store.add(token, secretBytes("value")), errSecSuccess); }

  test::SecretEnvironment environment;
  SecretStoreLinux store{patient};
};

TEST_F(VaultFile, ClosesItsFilesToOthersAndShowsNothing) {
  const mode_t before = ::umask(0);
  fill();
  ::umask(before);
  EXPECT_EQ(test::modeOf(environment.storeFolder()), 0700);
  for (const char* name : {"vault", "vault-key", "secret-store", "lock"}) {
    EXPECT_EQ(test::modeOf(path(name)), 0600) << name;
  }
  for (const char* shown : {"token", "value", "com.example"}) {
    EXPECT_EQ(content().find(shown), std::string::npos) << shown;
  }
  const std::string first = content();
  EXPECT_EQ(store.update(token, secretBytes("value")), errSecSuccess);
  EXPECT_NE(content(), first) << "the same nonce twice";
}

TEST_F(VaultFile, OpensWhatIsStoredSinceTheFirstVersion) {
  const auto bytes = [](const std::string& hex) {
    std::string text;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
      text += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return text;
  };
  fill();
  const std::string key = "1282a5aa5e2b61d53dbbbc9337f9e18b1c1c2e5cbde83f29a42e237fcda10103";
  test::writeFile(path("vault-key"), bytes(key));
  test::writeFile(path("vault"),
                  bytes("56656c566c7400014a20521955d53014a5b59dc9cfd03b7dba2e9888c62ce6"
                        "342a7aa8fd34facb8592ee8383b05ee654e11862e8c441d872edc4575ef16e2b"
                        "48dacf609ee8b6174b8da07e1eb4dd098b5a"));
  EXPECT_EQ(value(), "value");
}

TEST_F(VaultFile, LeavesADamagedFileAlone) {
  fill();
  const std::string whole = content();
  for (const std::string& damaged :
       {whole + '\0', whole.substr(0, 1), whole.substr(0, whole.size() - 1), std::string()}) {
    test::writeFile(path("vault"), damaged);
    EXPECT_EQ(readStatus(), errSecDecode) << damaged.size();
    EXPECT_EQ(store.update(token, secretBytes("new")), errSecDecode) << damaged.size();
    EXPECT_EQ(content(), damaged);
  }
  test::writeFile(path("vault"), whole);
  test::writeFile(path("secret-store"), "vau");
  EXPECT_EQ(store.update(token, secretBytes("new")), errSecDecode);
  EXPECT_EQ(content() + test::readFile(path("secret-store")), whole + "vau");
}

TEST_F(VaultFile, TakesItsKeyFromTheServiceManager) {
  const std::string credentials = environment.folder() + "/credentials";
  const std::string file = credentials + "/velum-vault-key";
  const test::ScopedVariable variable("CREDENTIALS_DIRECTORY", credentials);
  test::writeFile(file, std::string(31, 'k'));
  std::filesystem::permissions(file, perms::owner_read | perms::group_read);
  EXPECT_EQ(store.add(token, secretBytes("x")), errSecDecode) << "31 bytes are no key";
  std::filesystem::remove(file);
  test::writeFile(file, std::string(32, 'k'));
  std::filesystem::permissions(file, perms::owner_read | perms::group_read);
  fill();
  EXPECT_EQ(value(), "value");
  EXPECT_FALSE(std::filesystem::exists(path("vault-key")));
  std::filesystem::permissions(file, perms::owner_read | perms::others_read);
  EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM);
  std::filesystem::remove(file);
  EXPECT_EQ(readStatus(), errSecDecode) << "it was sealed with the key that is gone";
  EXPECT_EQ(store.add({"a", "b", {}, false}, secretBytes("x")), errSecDecode);
  EXPECT_FALSE(std::filesystem::exists(path("vault-key"))) << "a new key for old content";
}

TEST_F(VaultFile, RefusesWhatOthersCouldHavePlanted) {
  fill();
  for (const char* name : {"vault", "vault-key", "secret-store"}) {
    const std::string kept = environment.folder() + "/kept";
    std::filesystem::permissions(path(name), perms::owner_read | perms::group_read);
    EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM) << name;
    std::filesystem::permissions(path(name), perms::owner_read | perms::owner_write);
    std::filesystem::rename(path(name), kept);

    std::filesystem::create_symlink(kept, path(name));
    EXPECT_EQ(readStatus(), errSecErrnoBase + ELOOP) << name;
    std::filesystem::remove(path(name));
    ASSERT_EQ(::mkfifo(path(name).c_str(), 0600), 0);
    EXPECT_EQ(readStatus(), errSecErrnoBase + EINVAL) << name;
    std::filesystem::remove(path(name));
    std::filesystem::rename(kept, path(name));
  }
  if (::geteuid() == 0) {  // only root can give files away
    ASSERT_EQ(::chown(path("vault").c_str(), 12345, 12345), 0);
    EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM);
    ASSERT_EQ(::chown(path("vault").c_str(), 0, 0), 0);
  }
  std::filesystem::create_directory(path("vault.new"));  // where a write could go
  EXPECT_EQ(store.update(token, secretBytes("new")), errSecSuccess);

  std::filesystem::permissions(environment.storeFolder(), perms::owner_all | perms::others_exec);
  EXPECT_EQ(readStatus(), errSecErrnoBase + EPERM);
  std::filesystem::rename(environment.storeFolder(), environment.folder() + "/moved");
  std::filesystem::create_symlink(environment.folder() + "/moved", environment.storeFolder());
  EXPECT_EQ(readStatus(), errSecErrnoBase + ENOTDIR);
}

TEST_F(VaultFile, DoesNotWaitForALockForEver) {
  fill();
  const UniqueFd lock(::open(path("lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
  SecretStoreLinux hasty(std::chrono::milliseconds(100));
  EXPECT_EQ(hasty.update(token, secretBytes("too late")), errSecTimedOut);
  EXPECT_EQ(value(), "value") << "readers need no lock";
  ASSERT_EQ(::flock(lock.get(), LOCK_UN), 0);
  EXPECT_EQ(store.update({"x", "y", {}, false}, secretBytes("")), errSecItemNotFound);
  EXPECT_EQ(value(), "value") << "a call that was reported as failed was done later";
  const SecretCall late;  // its deadline is long over
  EXPECT_THROW(Vault(PrivateFolder(environment.storeFolder()), late)
                   .update({token.service, token.account, ""}, secretBytes("too late")),
               SecretFailure);
  EXPECT_EQ(value(), "value") << "its caller had gone while it waited for the lock";
}

}  // namespace
}  // namespace velum
