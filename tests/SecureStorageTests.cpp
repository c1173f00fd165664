#include "Velum/SecureStorage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <vector>

#include "Velum/Base/ByteView.h"
#include "Velum/Sealing/SealedBox.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/MemoryKey.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using test::CapturedLog;
using test::readFile;
using test::TemporaryFolder;
using test::writeFile;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Dictionary = PropertyList::Dictionary;

PropertyList text(std::string value) {
  return PropertyList(std::move(value));
}

class SecureStorageTest : public testing::Test {
 protected:
  std::unique_ptr<SecureStorage> make(double writeDelay = 0) const {
    return std::make_unique<SecureStorage>(key, path, writeDelay);
  }
  Dictionary stored() const {
    const auto storage = make();
    storage->load();
    return storage->dictionaryRepresentation();
  }
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder.path())) {
      found.push_back(entry.path().filename().string());
    }
    return found;
  }

  const TemporaryFolder folder;
  const std::string path = folder / "settings.sealed";
  const std::shared_ptr<test::MemoryKey> key = std::make_shared<test::MemoryKey>();
};

TEST_F(SecureStorageTest, MakesKeyAndFileWithTheFirstWrite) {
  const CapturedLog log;
  const Dictionary content{{"name", text("hidden value")}};
  const mode_t mask = ::umask(0);
  const auto storage = make();
  EXPECT_TRUE(log.has("Storage Key doesn't exist."));
  EXPECT_EQ(storage->load(), StorageState::missing);
  EXPECT_TRUE(log.has("File " + path + " doesn't exist"));
  EXPECT_FALSE(key->value);
  storage->setObject(text("hidden value"), "name");
  ::umask(mask);
  ASSERT_TRUE(key->value);
  EXPECT_EQ(key->value->size(), 32U);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_THAT(names(), UnorderedElementsAre("settings.sealed", "settings.sealed.lock"));
  EXPECT_EQ(stored(), content);
  // The file is the sealed property list, and nothing else.
  const std::string box = readFile(path);
  EXPECT_EQ(textView(SealedBox(*key->value).open(byteView(box))), PropertyList(content).binary());
  EXPECT_FALSE(log.has("hidden"));
  make()->deleteData();
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(SecureStorageTest, ThrowsAwayAFileWhoseKeyIsMissing) {
  const CapturedLog log;
  make()->setObject(text("value"), "name");
  const auto before = make();
  key->value.reset();
  EXPECT_EQ(before->load(), StorageState::missing);
  EXPECT_TRUE(log.has("No secure key found"));
  EXPECT_TRUE(fs::exists(path));
  const auto storage = make();
  EXPECT_FALSE(fs::exists(path));
  storage->setObject(text("new"), "name");
  EXPECT_EQ(stored(), (Dictionary{{"name", text("new")}}));
}

TEST_F(SecureStorageTest, KeepsAFileWhoseKeyIsOutOfReach) {
  const CapturedLog log;
  make()->setObject(text("old"), "old");
  const std::string before = readFile(path);
  const auto oldKey = key->value;
  key->status = errSecInteractionNotAllowed;
  const auto storage = make();
  EXPECT_EQ(storage->load(), StorageState::unavailable);
  EXPECT_FALSE(storage->setObject(text("new"), "new"));
  EXPECT_EQ(readFile(path), before);
  EXPECT_EQ(key->value, oldKey);
  EXPECT_EQ(log.count("Failed to load stored cache: The key can't be read"), 1U);
  EXPECT_EQ(log.count("Failed to store cache: The key can't be read"), 1U);
  key->status = errSecSuccess;
  EXPECT_TRUE(storage->store());
  EXPECT_EQ(stored(), (Dictionary{{"new", text("new")}, {"old", text("old")}}));

  // The same without a file: no new key.
  fs::remove(path);
  key->value.reset();
  key->status = errSecInteractionNotAllowed;
  EXPECT_FALSE(make()->setObject(text("new"), "new"));
  EXPECT_FALSE(key->value);
}

TEST_F(SecureStorageTest, WritesNothingWithoutAKeyThatIsKept) {
  const CapturedLog log;
  key->refusesToStore = true;
  const auto storage = make();
  EXPECT_FALSE(storage->setObject(text("value"), "name"));
  EXPECT_EQ(log.count("Failed to store the key for settings"), 2U);  // and as what store() says
  EXPECT_FALSE(fs::exists(path));
  key->refusesToStore = false;
  EXPECT_TRUE(storage->store());
  EXPECT_EQ(stored(), (Dictionary{{"name", text("value")}}));
}

TEST_F(SecureStorageTest, RefusesDamagedContentUntilTheNextWriteAndShowsNoneOfIt) {
  make()->setObject(text("hidden"), "name");
  const std::string whole = readFile(path);
  const auto isRefused = [&](const std::string& damaged, const char* reason) {
    writeFile(path, damaged);
    const CapturedLog log;
    make()->load();
    EXPECT_EQ(log.count(std::string("Failed to load stored cache: ") + reason), 1U);
    EXPECT_FALSE(log.has("hidden") || log.has("KEY"));
    EXPECT_EQ(readFile(path), damaged);
  };
  isRefused(whole + '\0', "authenticationFailure");
  isRefused("hidden", "incorrectParameterSize");
  key->value = secretBytes("KEYSHORT");
  isRefused(whole, "incorrectKeySize");
  // What another key sealed is no content either, and the next write replaces it.
  key->value = SealedBox::newKey();
  isRefused(whole, "authenticationFailure");
  const auto storage = make();
  EXPECT_EQ(storage->load(), StorageState::damaged);
  EXPECT_TRUE(storage->setObject(text("new"), "name"));
  EXPECT_EQ(stored(), (Dictionary{{"name", text("new")}}));
  EXPECT_EQ(readFile(path + ".damaged"), whole);
}

TEST_F(SecureStorageTest, TakesKeyAndFileOfAnotherThatWasFasterByAMoment) {
  const SecretBytes winner = SealedBox::newKey();
  const std::string sealed =
      SealedBox(winner).seal(byteView(PropertyList(Dictionary{{"theirs", text("1")}}).binary()));
  const auto another = [&] {
    key->value = winner;
    writeFile(path, sealed);
  };
  writeFile(path, "of a key that is gone");
  key->afterRead = another;
  const auto storage = make();
  EXPECT_EQ(readFile(path), sealed) << "threw away what the other one had just made";

  key->value.reset();
  fs::remove(path);
  key->afterRead = another;
  EXPECT_TRUE(storage->setObject(text("2"), "ours"));
  EXPECT_EQ(key->value, winner);
  EXPECT_EQ(stored(), (Dictionary{{"ours", text("2")}}));
}

TEST_F(SecureStorageTest, RefusesAndReplacesWhatIsNotAFileOfItsOwn) {
  make()->setObject(text("theirs"), "name");
  const std::string victim = folder / "victim";
  fs::copy_file(path, victim);
  const std::vector<std::function<void()>> plants{
      [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); },
      [&] { (writeFile(path, ""), fs::resize_file(path, 100'000'000'000)); },  // sparse
      [&] { fs::create_symlink(victim, path); },
  };
  for (const auto& plant : plants) {
    fs::remove(path);
    plant();
    const auto storage = make();
    EXPECT_EQ(storage->load(), StorageState::damaged);
    EXPECT_TRUE(storage->setObject(text("value"), "name"));
    EXPECT_EQ(stored(), (Dictionary{{"name", text("value")}}));
  }
  fs::rename(victim, path);
  EXPECT_EQ(stored(), (Dictionary{{"name", text("theirs")}}));
}

TEST_F(SecureStorageTest, TheLastOfSeveralWritersWinsWhole) {
  key->value = SealedBox::newKey();
  const auto isWhole = [&] {
    const std::string content = *stored().at("text").get<std::string>();
    return content == std::string(500'000, content.front());
  };
  std::vector<test::ChildProcess> writers;
  for (const char letter : {'x', 'y', 'z'}) {
    writers.emplace_back([&, letter] {
      for (int round = 0; round < 8; ++round) {
        EXPECT_TRUE(make()->reset(Dictionary{{"text", text(std::string(500'000, letter))}}));
        EXPECT_TRUE(isWhole());
      }
    });
  }
  for (auto& writer : writers) EXPECT_EQ(writer.wait(), 0);
  EXPECT_TRUE(isWhole());
  EXPECT_THAT(names(), ElementsAre("settings.sealed"));
}

// This program belongs to no bundle.
TEST(KeyChainDeathTest, StopsAProgramThatHasNoBundle) {
  EXPECT_DEATH(KeyChainData("key").read(), "The main bundle has no identifier");
}

}  // namespace
}  // namespace velum
