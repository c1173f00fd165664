#include "Velum/Platform/UserDefaults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <utility>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/PropertyList/DefaultsArguments.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Environment.h"
#include "tests/support/Inspection.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::writeFile;

PropertyList text(const std::string& value) {
  return PropertyList(value);
}

class UserDefaultsTest : public testing::Test {
 protected:
  test::TemporaryFolder folder;
  test::ScopedVariable configuration{"XDG_CONFIG_HOME", folder / "config"};
  std::string file = folder / "config/com.example/defaults.plist";
  std::unique_ptr<UserDefaults> defaults = UserDefaults::domain("com.example");
};

TEST_F(UserDefaultsTest, SetsADamagedFileAside) {
  for (const std::string& damage : {std::string("garbage"), text("no dictionary").binary()}) {
    writeFile(file, damage);
    EXPECT_EQ(defaults->object("key"), std::nullopt);
    EXPECT_EQ(defaults->persistentDomain(), std::nullopt);
    EXPECT_TRUE(defaults->removeObject("key"));
    EXPECT_EQ(readFile(file), damage);  // nothing to write yet
    EXPECT_TRUE(defaults->setObject("key", text("value")));
    EXPECT_EQ(defaults->object("key"), text("value"));
    EXPECT_EQ(readFile(file + ".damaged"), damage);
  }
}

TEST_F(UserDefaultsTest, ClosesWhatItMakesToOthersAndWritesThroughNoPlantedLink) {
  const mode_t mask = ::umask(0);
  EXPECT_TRUE(defaults->setObject("key", text("value")));
  ::umask(mask);
  for (const auto& [made, mode] : {std::pair("", 0700),
                                   {"/com.example", 0700},
                                   {"/com.example/defaults.plist", 0600},
                                   {"/com.example/defaults.plist.lock", 0600}}) {
    EXPECT_EQ(test::modeOf(folder / "config" + made), mode) << made;
  }
  PropertyList deep;
  for (int level = 0; level < 600; ++level) {
    deep = PropertyList(PropertyList::Array{std::move(deep)});
  }
  EXPECT_FALSE(defaults->setObject("deep", std::move(deep))) << "could not be read again";
  EXPECT_EQ(defaults->object("key"), text("value"));

  const std::string victim = folder / "victim";
  writeFile(victim, "precious");
  fs::remove(file);
  fs::create_symlink(victim, file);
  fs::create_directory(file + ".new");
  EXPECT_TRUE(defaults->setObject("key", text("new")));
  EXPECT_EQ(defaults->object("key"), text("new"));
  fs::remove(file + ".lock");
  fs::create_symlink(folder / "nowhere", file + ".lock");
  EXPECT_FALSE(defaults->setObject("key", text("newer")));
  EXPECT_FALSE(fs::exists(folder / "nowhere"));
  EXPECT_EQ(readFile(victim), "precious");
}

TEST_F(UserDefaultsTest, GivesALockUpThatSomebodyKeeps) {
  ASSERT_TRUE(defaults->setObject("key", text("value")));
  const UniqueFd lock(::open((file + ".lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
  const test::CapturedLog log;
  EXPECT_FALSE(defaults->setObject("key", text("too late")));
  EXPECT_TRUE(log.has("defaults.plist.lock is kept locked by another process"));
  EXPECT_EQ(defaults->object("key"), text("value")) << "readers need no lock";
}

TEST_F(UserDefaultsTest, RegisteredDefaultsStandBackBehindStoredOnes) {
  defaults->registerDefaults({{"key", text("first")}, {"other", text("kept")}});
  defaults->registerDefaults({{"key", text("newer")}});
  EXPECT_EQ(defaults->object("key"), text("newer"));
  EXPECT_EQ(defaults->object("other"), text("kept"));
  EXPECT_TRUE(defaults->setObject("key", text("stored")));
  EXPECT_EQ(defaults->object("key"), text("stored"));
  EXPECT_EQ(defaults->registeredObject("key"), text("newer"));
  EXPECT_EQ(UserDefaults::domain("com.example")->object("other"), std::nullopt);
  EXPECT_FALSE(defaults->persistentDomain()->contains("other"));

  EXPECT_TRUE(UserDefaults::standard().setObject("key", text("value")));
  const std::string program = fs::path(testing::internal::GetArgvs().at(0)).filename();
  EXPECT_EQ(UserDefaults::domain(program)->object("key"), text("value"));
}

// Who is started with arguments finds them: see SecureDefaultsTests.
TEST(DefaultsArguments, AreNamesThatBeginWithADashAndTheValuesBehindThem) {
  using Entries = PropertyList::Dictionary;
  std::istringstream bars(
      R"(-name|plain (text|-flag|-list|( a, "b c", )|-nested|{k = <0f BD>; "q \"" = "line\nfeed";}|)"
      "value without a key|-xml|<plist><integer>7</integer></plist>|-number|-5|-twice|1|-twice|2|"
      "-empty||--long|x|-last");
  std::vector<std::string> texts;
  for (std::string word; std::getline(bars, word, '|');) texts.push_back(word);
  const std::vector<std::string_view> arguments(texts.begin(), texts.end());
  const Entries expected{
      {"name", text("plain (text")},
      {"list", PropertyList(PropertyList::Array{text("a"), text("b c")})},
      {"nested", PropertyList(Entries{{"k", PropertyList(PropertyList::Data{0x0F, 0xBD})},
                                      {"q \"", text("line\nfeed")}})},
      {"xml", PropertyList(std::int64_t{7})},
      {"number", text("-5")},
      {"twice", text("2")},
      {"empty", text("")},
  };
  EXPECT_EQ(defaultsFromArguments(arguments), expected);
}

}  // namespace
}  // namespace velum
