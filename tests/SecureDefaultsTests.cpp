#include "Velum/SecureDefaults.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <limits>
#include <thread>

#include "Velum/Logger/Logger.h"
#include "Velum/PropertyList/DefaultsConversions.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/SecureStorage.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Environment.h"
#include "tests/support/MemoryKey.h"
#include "tests/support/NoRoom.h"
#include "tests/support/Processes.h"
#include "tests/support/RecordingLogHandler.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using Entries = PropertyList::Dictionary;
using test::readFile;
using test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

template <class T>
PropertyList list(T value) {
  return PropertyList(std::move(value));
}
PropertyList text(const char* value) {
  return list(std::string(value));
}

/// A key that every process of the test knows.
std::shared_ptr<test::MemoryKey> commonKey() {
  return std::make_shared<test::MemoryKey>(SecretBytes(SealedBox::keySize, 7));
}

std::shared_ptr<KeyStorageProtocol> sealedCopy(
    const std::string& path, const std::shared_ptr<test::MemoryKey>& key = commonKey()) {
  auto storage = std::make_shared<SecureStorage>(key, path, 0);
  storage->load();
  return storage;
}

class SecureDefaultsTest : public testing::Test {
 protected:
  SecureDefaultsTest() {
    Logger::shared().setHandlers({log});
    defaults.setCorruptionHandler([this](auto reason) { reasons.push_back(reason); });
  }
  ~SecureDefaultsTest() override { Logger::shared().setHandlers({}); }

  /// What the domain holds, as another program sees it.
  std::optional<Entries> domain() const { return outsider->persistentDomain(); }
  /// Expects that exactly one change was reported since the last call.
  void expectOneReport() {
    EXPECT_THAT(reasons, ElementsAre(DefaultsCorruptionReason::changedOutside));
    reasons.clear();
  }

  test::TemporaryFolder folder;
  test::ScopedVariable configuration{"XDG_CONFIG_HOME", folder.path()};
  std::string file = folder / "com.example/defaults.plist";
  std::shared_ptr<test::RecordingLogHandler> log = std::make_shared<test::RecordingLogHandler>();
  std::shared_ptr<test::MemoryKey> copyKey = commonKey();
  std::shared_ptr<KeyStorageProtocol> copy = sealedCopy(folder / "copy", copyKey);
  SecureDefaults defaults{"com.example", copy};
  std::unique_ptr<UserDefaults> outsider = UserDefaults::domain("com.example");
  std::vector<DefaultsCorruptionReason> reasons;
};

TEST_F(SecureDefaultsTest, KeepsEveryTypeInBothPlaces) {
  using namespace std::chrono_literals;
  const PropertyList::Date moment{1'800'000'000s + 250ms};
  const PropertyList::Data bytes{0, 255};
  EXPECT_TRUE(defaults.setBool(true, "bool") && defaults.setInteger(-7, "integer") &&
              defaults.setDouble(0.5, "double") && defaults.setString("t\u20ACxt", "string") &&
              defaults.setData(bytes, "data") && defaults.setDate(moment, "date") &&
              defaults.setArray({text("a")}, "array") &&
              defaults.setDictionary({{"k", list(false)}}, "dictionary") &&
              defaults.setUrl("https://example.com/?q=1", "url"));
  EXPECT_FALSE(defaults.setUrl("/no/scheme", "url"));

  SecureDefaults later("com.example", copy);
  EXPECT_TRUE(later.boolValue("bool"));
  EXPECT_EQ(later.integer("integer"), -7);
  EXPECT_EQ(later.doubleValue("double"), 0.5);
  EXPECT_EQ(later.string("string"), "t\u20ACxt");
  EXPECT_EQ(later.data("data"), bytes);
  EXPECT_EQ(later.date("date"), moment);
  EXPECT_EQ(later.array("array"), PropertyList::Array{text("a")});
  EXPECT_EQ(later.dictionary("dictionary"), (Entries{{"k", list(false)}}));
  EXPECT_EQ(later.url("url"), "https://example.com/?q=1");
  EXPECT_EQ(later.url("string"), std::nullopt);
  EXPECT_EQ(later.object("bool"), list(true));
  EXPECT_EQ(later.data("string"), std::nullopt);
  EXPECT_EQ(domain(), copy->dictionaryRepresentation());
  EXPECT_EQ(domain()->size(), 9U);

  EXPECT_TRUE(defaults.removeObject("bool"));
  EXPECT_FALSE(defaults.boolValue("bool"));
  EXPECT_EQ(domain(), copy->dictionaryRepresentation());
  EXPECT_THAT(log->texts(), IsEmpty());
}

TEST_F(SecureDefaultsTest, PutsTheWholeDomainBackWhateverWasChanged) {
  const Entries original{
      {"key", list(std::int64_t{1})},
      {"zero", list(0.0)},
      {"nested", list(Entries{{"a", list(PropertyList::Array{text("x"), text("y")})}})},
      {"other", text("kept")},
  };
  const auto replaceBy = [this](const char* key, const PropertyList& value) {
    return [this, key, value] { EXPECT_TRUE(outsider->setObject(key, value)); };
  };
  const std::vector<std::pair<const char*, std::function<void()>>> changes{
      {"key", replaceBy("key", list(std::int64_t{2}))},
      {"key", replaceBy("key", list(true))},
      {"key", replaceBy("key", list(1.0))},
      {"key", replaceBy("key", text("1"))},
      {"zero", replaceBy("zero", list(-0.0))},
      {"key", [this] { outsider->removeObject("key"); }},
      {"nested", replaceBy("nested", list(Entries{{"a", list(PropertyList::Array{text("x")})}}))},
      {"added", replaceBy("added", text("new"))},
      {"key", [this] { fs::remove(file); }},
      {"key", [this] { writeFile(file, "garbage"); }},
      {"other", [this] { writeFile(file, list(PropertyList::Array{}).binary()); }},
      {"key", [this] { fs::create_directories((fs::remove(file), file)); }},
  };
  copy->reset(original);
  EXPECT_TRUE(outsider->setPersistentDomain(original));
  for (std::size_t number = 0; number < changes.size(); ++number) {
    SCOPED_TRACE(number);
    const auto& [key, change] = changes[number];
    change();
    outsider->setObject("key two", text("changed along with it"));
    EXPECT_EQ(defaults.object(key),
              original.contains(key) ? std::optional(original.at(key)) : std::nullopt);
    expectOneReport();
    EXPECT_EQ(domain(), original);
    EXPECT_EQ(copy->dictionaryRepresentation(), original);
    for (const auto& [each, value] : original) EXPECT_EQ(defaults.object(each), value);
    EXPECT_THAT(reasons, IsEmpty());
    EXPECT_EQ(log->texts().back(), "E: (SecureDefaults: validate(key:block:)) Default " +
                                       std::string(key) + " was changed in defaults.plist");
  }
  EXPECT_EQ(defaults.integer("key"), 1);
}

TEST_F(SecureDefaultsTest, BlocksRunOnTheRepairedDomain) {
  ASSERT_TRUE(defaults.setString("right", "key"));
  outsider->setObject("key", text("wrong"));
  EXPECT_EQ(defaults.validate("key", [&] { return *outsider->object("key"); }), text("right"));
  expectOneReport();
  // Only the value that is asked for is compared.
  outsider->setObject("key", text("wrong"));
  EXPECT_EQ(defaults.string("absent"), std::nullopt);
  defaults.skipValidating = true;
  EXPECT_EQ(defaults.string("key"), "wrong");
  EXPECT_THAT(reasons, IsEmpty());
  defaults.skipValidating = false;
  EXPECT_EQ(defaults.string("key"), "right");
}

/// A log handler that needs a guarded setting.
class ReadingHandler final : public LogHandlerProtocol {
 public:
  explicit ReadingHandler(SecureDefaults& defaults) : defaults_(defaults) {}
  void logWithLevel(LogLevel /*level*/, LogDate /*date*/, std::string_view /*text*/) override {
    EXPECT_EQ(defaults_.string("key"), "right");
  }

 private:
  SecureDefaults& defaults_;
};

TEST_F(SecureDefaultsTest, ReportsARepairThatFailsOnceAndTrustsTheCopy) {
  auto handlers = Logger::shared().handlers();
  handlers.push_back(std::make_shared<ReadingHandler>(defaults));
  Logger::shared().setHandlers(std::move(handlers));
  ASSERT_TRUE(defaults.setString("right", "key"));
  defaults.registerDefaults({{"added", text("registered")}});
  outsider->setPersistentDomain({{"key", text("wrong")}, {"added", text("wrong")}});
  {
    const test::NoRoom noRoom;
    for (int read = 0; read < 3; ++read) {
      EXPECT_EQ(defaults.string("key"), "right");
      EXPECT_EQ(defaults.string("added"), "registered");
    }
    expectOneReport();
    EXPECT_THAT(log->texts(),
                ElementsAre(HasSubstr("Failed to restore"), HasSubstr("Default key")));
    EXPECT_FALSE(defaults.setString("newer", "key")) << "the copy can't be written";
    EXPECT_EQ(copy->object("key"), text("right"));
  }
  SecureDefaults other("com.example", sealedCopy(folder / "copy", copyKey));
  EXPECT_TRUE(other.setInteger(7, "others"));
  EXPECT_TRUE(defaults.setInteger(3, "own"));
  EXPECT_EQ(sealedCopy(folder / "copy")->object("others"), list(std::int64_t{7}))
      << "what was refused is written over what others stored";
  EXPECT_EQ(defaults.string("key"), "right");
  expectOneReport();
  EXPECT_EQ(domain(), copy->dictionaryRepresentation());
}

TEST_F(SecureDefaultsTest, TouchesNothingWhileTheCopyIsOutOfReachOrDamaged) {
  for (const std::string wrong : {"locked", "locked", "damaged"}) {
    ASSERT_TRUE(defaults.setString("right", "key")) << wrong;
    const std::string whole = readFile(folder / "copy");
    outsider->setObject("key", text("wrong"));
    const std::string changed = readFile(file);
    if (wrong == "locked") {
      copyKey->status = errSecInteractionNotAllowed;
      // A keychain that hangs must not hold up who else uses the domain.
      copyKey->afterRead = [&] { EXPECT_TRUE(outsider->setObject("key", text("wrong"))); };
    } else {
      std::string damaged = whole;
      damaged.back() = static_cast<char>(~damaged.back());
      writeFile(folder / "copy", damaged);
    }
    SecureDefaults later("com.example", sealedCopy(folder / "copy", copyKey));  // read nothing ever
    later.setCorruptionHandler([this](auto reason) { reasons.push_back(reason); });
    std::size_t records = log->texts().size();
    EXPECT_EQ(defaults.string("key"), "right");
    EXPECT_GT(log->texts().size(), records) << "told each time that it comes about";
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(defaults.string("key"), "right") << "what the copy held when it was last read";
      EXPECT_EQ(later.string("key"), std::nullopt) << "never compared";
      EXPECT_FALSE(defaults.setString("new", "key"));
      EXPECT_FALSE(later.setString("new", "other"));
    }
    records = log->texts().size();
    EXPECT_EQ(defaults.string("key"), "right");
    EXPECT_EQ(log->texts().size(), records) << "told again";
    if (wrong == "locked") copyKey->status = errSecTimedOut;
    EXPECT_EQ(later.string("key"), std::nullopt);
    EXPECT_EQ(log->texts().size() > records, wrong == "locked") << "another reason";
    EXPECT_EQ(readFile(file), changed);
    constexpr auto lost = DefaultsCorruptionReason::protectedCopyLost;
    EXPECT_THAT(std::exchange(reasons, {}),
                wrong == "locked" ? IsEmpty()
                                  : testing::Matcher<decltype(reasons)>(ElementsAre(lost, lost)));
    copyKey->status = errSecSuccess;
    if (wrong == "damaged") {  // the owner decides
      EXPECT_TRUE(copy->reset(defaults.persistentDomain()));
      EXPECT_EQ(later.string("key"), "wrong");
      EXPECT_NE(readFile(folder / "copy.damaged"), "");
    } else {
      EXPECT_EQ(later.string("key"), "right");
      expectOneReport();
    }
  }
}

TEST_F(SecureDefaultsTest, AccusesNobodyOfWhatItCouldNotCompareUnderTheLockThenOnce) {
  ASSERT_TRUE(defaults.setString("right", "key"));
  outsider->setObject("key", text("wrong"));
  fs::remove(file + ".lock");
  fs::create_symlink("nowhere", file + ".lock");  // can't be opened
  EXPECT_EQ(defaults.string("key"), "right");
  EXPECT_FALSE(defaults.setString("new", "other"));
  EXPECT_THAT(reasons, IsEmpty());
  fs::remove(file + ".lock");
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] { EXPECT_EQ(defaults.string("key"), "right"); });
  }
  threads.clear();  // waits for them
  expectOneReport();
}

TEST_F(SecureDefaultsTest, AnOldFileThatIsPutBackIsNeitherBelievedNorMadeOfficial) {
  ASSERT_TRUE(defaults.setString("old", "key"));
  const std::string old = readFile(file);
  SecureDefaults other("com.example", sealedCopy(folder / "copy"));
  for (const bool isWritten : {false, true}) {
    const std::string value = isWritten ? "newer" : "new";
    ASSERT_TRUE(other.setString(value, "key"));
    writeFile(file, old);
    EXPECT_TRUE(!isWritten || defaults.setString("value", "another"));
    EXPECT_EQ(defaults.string("key"), value);
    expectOneReport();
  }
}

TEST_F(SecureDefaultsTest, FinishesTheWriteOfAKilledProcessButNoChangeOfOthersSince) {
  ASSERT_TRUE(defaults.setString("old", "key"));
  const Entries note{{"key", list(PropertyList::Array{text("old")})}};
  ASSERT_TRUE(copy->setObjects(
      {{"key", text("new")}, {std::string(SecureDefaults::pendingKey), list(note)}}));
  outsider->setObject("key", text("wrong"));
  EXPECT_EQ(defaults.string("key"), "new");
  expectOneReport();
  EXPECT_EQ(domain(), (Entries{{"key", text("new")}}));
}

TEST_F(SecureDefaultsTest, TheHandlerMayReadAndWrite) {
  ASSERT_TRUE(defaults.setString("right", "key"));
  int calls = 0;
  defaults.setCorruptionHandler([&](auto) {
    ++calls;
    EXPECT_EQ(defaults.string("key"), "right");
    EXPECT_TRUE(defaults.setInteger(calls, "count"));
    defaults.setCorruptionHandler([&](auto) { calls += 10; });  // replaces the running one
  });
  outsider->removeObject("key");
  EXPECT_EQ(defaults.string("key"), "right");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(defaults.integer("count"), 1);
  outsider->removeObject("key");
  EXPECT_EQ(defaults.validate("key", [&] { return defaults.string("key"); }), "right");
  EXPECT_EQ(calls, 11);
}

TEST_F(SecureDefaultsTest, ValuesTheFormatRewritesAreNotTakenForChanged) {
  EXPECT_TRUE(defaults.setObject(list(std::uint64_t{5}), "unsigned"));
  EXPECT_TRUE(defaults.setDouble(std::nan(""), "no number"));
  EXPECT_TRUE(defaults.setString("\xFF", "\xFE key"));
  EXPECT_TRUE(
      defaults.setDate(PropertyList::Date(PropertyList::Date::duration::min() / 7), "early"));
  const auto stored = domain().value();
  for (const auto& [key, value] : stored) defaults.object(key);
  EXPECT_EQ(defaults.string("\uFFFD key"), "\uFFFD");
  EXPECT_TRUE(std::isnan(defaults.doubleValue("no number")));
  EXPECT_THAT(reasons, IsEmpty());

  PropertyList deep;
  for (int level = 0; level < 600; ++level) deep = list(PropertyList::Array{std::move(deep)});
  EXPECT_FALSE(defaults.setObject(std::move(deep), "deep"));
  EXPECT_EQ(copy->object("deep"), std::nullopt);
}

// Runs in a process of its own, which is started with arguments.
TEST_F(SecureDefaultsTest, DISABLED_InAChildWithArguments) {
  ASSERT_TRUE(defaults.setString("right", "key"));
  outsider->setObject("key", text("wrong"));
  EXPECT_EQ(defaults.string("key"), "right");
  expectOneReport();
  EXPECT_EQ(domain(), copy->dictionaryRepresentation());
  EXPECT_TRUE(defaults.setString("stored", "name"));
  EXPECT_EQ(defaults.string("name"), "argument");
  EXPECT_EQ(outsider->object("name"), text("argument"));
  EXPECT_EQ(domain()->at("name"), text("stored"));
  const bool isSilent = UserDefaults::argumentDomain().at("SecureDefaults:silent") == text("YES");
  EXPECT_EQ(log->texts().empty(), isSilent);
}

TEST_F(SecureDefaultsTest, ArgumentsOverrideValuesAndTheMarkerSilencesTheRecordAlone) {
  EXPECT_THAT(UserDefaults::argumentDomain(), IsEmpty());
  for (const std::string silent : {"YES", "NO"}) {
    const pid_t pid = test::startShell(
        "exec '" + testing::internal::GetArgvs().at(0) +
        "' --gtest_also_run_disabled_tests --gtest_filter='*DISABLED_InAChildWithArguments' "
        "-name argument -SecureDefaults:silent " +
        silent);
    EXPECT_EQ(test::exitStatus(pid), 0) << silent;
  }
}

TEST_F(SecureDefaultsTest, ProcessesMayShareASealedCopy) {
  constexpr int processes = 3;
  constexpr int writes = 8;
  const std::string sealed = folder / "sealed";
  std::vector<test::ChildProcess> children;
  for (int process = 0; process < processes; ++process) {
    children.emplace_back([&, process] {
      SecureDefaults own("com.example", sealedCopy(sealed));
      own.setCorruptionHandler([](auto) { ADD_FAILURE() << "took another one for an intruder"; });
      for (int i = 0; i < writes; ++i) {
        const std::string key = std::to_string(process) + '.' + std::to_string(i);
        EXPECT_TRUE(own.setInteger(i, key));
        EXPECT_TRUE(own.setInteger(i, "shared"));
        EXPECT_EQ(own.integer(key), i);
        own.integer("shared");
        own.integer(std::to_string((process + 1) % processes) + '.' + std::to_string(i));
      }
    });
  }
  for (auto& child : children) EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(domain()->size(), processes * writes + 1U);
  EXPECT_EQ(domain(), sealedCopy(sealed)->dictionaryRepresentation());
}

TEST(SecureDefaultsDeathTest, StopsWithoutACopyOfTheSubclass) {
  class Sub : public SecureDefaults {
   public:
    Sub() : SecureDefaults("com.example") {}
  };
  const test::TemporaryFolder folder;
  const test::ScopedVariable configuration("XDG_CONFIG_HOME", folder.path());
  EXPECT_DEATH(Sub().boolValue("key"), "Must be overwritten in subclass");
  EXPECT_DEATH(SecureDefaults("../x", sealedCopy(folder / "copy")), "folder's");
}

TEST(DefaultsConversions, TakeWhatCanOnlyMeanOneThing) {
  struct Case {
    PropertyList value;
    bool flag;
    std::int64_t number;
    double real;
    std::optional<std::string> words;
  };
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  constexpr auto least = std::numeric_limits<std::int64_t>::min();
  const std::vector<Case> cases{
      {list(true), true, 1, 1, "1"},
      {list(false), false, 0, 0, "0"},
      {list(std::int64_t{-3}), true, -3, -3, "-3"},
      {list(~std::uint64_t{0}), true, most, 18446744073709551616.0, "18446744073709551615"},
      {list(-2.75), true, -2, -2.75, "-2.75"},
      {list(1e300), true, most, 1e300, "1e+300"},
      {list(-9223372036854775808.0), true, least, -9223372036854775808.0, "-9.223372036854776e+18"},
      {text("YES"), true, 0, 0, "YES"},
      {text("true"), true, 0, 0, "true"},
      {text("NO"), false, 0, 0, "NO"},
      {text(" -007.5e1 apples"), true, -7, -75, " -007.5e1 apples"},
      {text("+12"), true, 12, 12, "+12"},
      {text("+-12"), false, 0, 0, "+-12"},
      {text("0x10"), false, 0, 0, "0x10"},
      {text("-99999999999999999999"), true, least, -1e20, "-99999999999999999999"},
      {text(""), false, 0, 0, ""},
      {list(PropertyList::Data{1}), false, 0, 0, std::nullopt},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.value.binary());
    EXPECT_EQ(boolFrom(each.value), each.flag);
    EXPECT_EQ(integerFrom(each.value), each.number);
    EXPECT_EQ(doubleFrom(each.value), each.real);
    EXPECT_EQ(stringFrom(each.value), each.words);
  }
  EXPECT_EQ(integerFrom(list(std::nan(""))), 0);
  EXPECT_TRUE(isUrl("file:///x") && isUrl("x-a.b+1:y"));
  EXPECT_FALSE(isUrl("://x") || isUrl("1a:x") || isUrl("a/b:c") || isUrl("") || isUrl(":"));
}

}  // namespace
}  // namespace velum
