#include "Velum/Platform/Bundle.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "Velum/PropertyList/PropertyList.h"
#include "tests/support/Environment.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using test::ScopedVariable;
using test::TemporaryFolder;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

std::string info(const std::string& identifier, const std::string& executable) {
  return PropertyList(PropertyList::Dictionary({
                          {"CFBundleIdentifier", PropertyList(identifier)},
                          {"CFBundleExecutable", PropertyList(executable)},
                      }))
      .binary();
}

class BundleTest : public testing::Test {
 protected:
  /// Makes a bundle with that property list and returns its path.
  std::string make(const std::string& name, const std::string& propertyList,
                   const std::string& program = "Main") {
    std::string path = folder / name;
    writeFile(path + "/Contents/Info.plist", propertyList);
    writeFile(path + "/Contents/MacOS/" + program, "#!/bin/sh\n");
    return path;
  }

  /// The arguments of a desktop entry with that Exec line, the program first; empty for one that
  /// can't be opened.
  std::vector<std::string> words(const std::string& exec) {
    const std::string path = folder / "some.desktop";
    writeFile(path, "[Desktop Entry]\nName=A  Name\nIcon=icon\nExec=" + exec + "\n");
    const auto bundle = Bundle::at(path);
    if (!bundle || !bundle->obstacle.empty()) return {};
    std::vector<std::string> all{bundle->executable};
    all.insert(all.end(), bundle->arguments.begin(), bundle->arguments.end());
    return all;
  }

  TemporaryFolder folder;
};

TEST_F(BundleTest, ReadsIdentifierAndProgramByAnyPathThatLeadsToTheFolder) {
  const std::string name = "a b\n\xFF\"'.app";
  const std::string path = make(name, info("com.example.app", "Main Program"), "Main Program");
  const auto bundle = Bundle::at(path);
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->path, path);
  EXPECT_EQ(bundle->identifier, "com.example.app");
  EXPECT_EQ(bundle->executable, path + "/Contents/MacOS/Main Program");
  EXPECT_THAT(bundle->arguments, IsEmpty());
  EXPECT_EQ(Bundle::at(path + "//")->executable, bundle->executable);
  EXPECT_EQ(Bundle::at(path + "//")->path, path + "//");

  fs::create_symlink(path, folder / "link");
  EXPECT_EQ(Bundle::at(folder / "link")->executable,
            (folder / "link") + "/Contents/MacOS/Main Program");
  EXPECT_EQ(Bundle::at(folder / "link/")->identifier, "com.example.app");

  const fs::path before = fs::current_path();
  fs::current_path(folder.path());
  const auto relative = Bundle::at(name);
  fs::current_path(before);
  EXPECT_TRUE(fs::equivalent(relative->executable, path + "/Contents/MacOS/Main Program"));
  EXPECT_TRUE(relative->executable.starts_with('/'));
}

TEST_F(BundleTest, FallsBackWhenThePropertyListIsOfNoUse) {
  const std::string path = make("My.Own App.app", "no property list");
  const std::string fallback = path + "/Contents/MacOS/My.Own App";
  const auto expectFallback = [&] {
    const auto bundle = Bundle::at(path);
    ASSERT_TRUE(bundle);
    EXPECT_EQ(bundle->identifier, std::nullopt);
    EXPECT_EQ(bundle->executable, fallback);
  };
  const std::string file = path + "/Contents/Info.plist";
  expectFallback();
  writeFile(file, info("a", "Main") + std::string(2 << 20, ' '));
  expectFallback();
  fs::remove(file);
  expectFallback();
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);  // nobody ever writes to it
  expectFallback();

  // The name is the real folder's, whatever leads there.
  fs::create_symlink(path, folder / "Current.app");
  EXPECT_EQ(fs::path(Bundle::at(folder / "Current.app")->executable).filename(), "My.Own App");
}

TEST_F(BundleTest, IsNothingWhereThereIsNone) {
  EXPECT_FALSE(Bundle::at(folder / "missing.app"));
  EXPECT_FALSE(Bundle::at(""));
  EXPECT_FALSE(Bundle::at(folder.path()));  // a folder without Contents
  writeFile(folder / "Half.app/Contents", "");
  EXPECT_FALSE(Bundle::at(folder / "Half.app"));
  ASSERT_EQ(::mkfifo((folder / "fifo.desktop").c_str(), 0600), 0);
  EXPECT_FALSE(Bundle::at(folder / "fifo.desktop"));
  EXPECT_FALSE(Bundle::at("/dev/null"));
}

TEST_F(BundleTest, TakesAPlainFileAsProgram) {
  writeFile(folder / "tool", "#!/bin/sh\n");
  const auto bundle = Bundle::at(folder / "tool");
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->executable, folder / "tool");
  EXPECT_EQ(bundle->identifier, std::nullopt);
}

TEST_F(BundleTest, FindsTheBundleOfItsMainProgramOnly) {
  const std::string path = make("App.app", info("com.example.app", "Main"));
  const std::string program = path + "/Contents/MacOS/Main";
  writeFile(path + "/Contents/MacOS/helper", "");
  writeFile(path + "/Contents/Resources/Main", "");
  EXPECT_EQ(Bundle::ofExecutable(program)->identifier, "com.example.app");
  EXPECT_EQ(Bundle::ofExecutable(program)->path, path);
  EXPECT_FALSE(Bundle::ofExecutable(path + "/Contents/MacOS/helper"));
  EXPECT_FALSE(Bundle::ofExecutable(path + "/Contents/Resources/Main"));
  EXPECT_FALSE(Bundle::ofExecutable("/bin/sh"));
  EXPECT_FALSE(Bundle::ofExecutable("Main"));
  EXPECT_FALSE(Bundle::ofExecutable(""));

  // An application inside another one is itself.
  const std::string inner =
      make("App.app/Contents/MacOS/Inner.app", info("com.example.inner", "Main"));
  EXPECT_EQ(Bundle::ofExecutable(inner + "/Contents/MacOS/Main")->identifier, "com.example.inner");

  // The kernel shows the file that a link in the folder leads to.
  fs::rename(program, path + "/Contents/MacOS/Main-2");
  fs::create_symlink("Main-2", program);
  EXPECT_TRUE(Bundle::ofExecutable(path + "/Contents/MacOS/Main-2"));
}

TEST_F(BundleTest, KnowsAProgramThatWasReplacedWhileItRuns) {
  const std::string path = make("App.app", info("com.example.app", "Main"));
  const std::string program = path + "/Contents/MacOS/Main";
  EXPECT_TRUE(Bundle::ofExecutable(program + " (deleted)"));
  fs::remove(program);
  EXPECT_TRUE(Bundle::ofExecutable(program + " (deleted)"));
  writeFile(program + " (deleted)", "");  // a file that really has this name is another program
  EXPECT_FALSE(Bundle::ofExecutable(program + " (deleted)"));
}

TEST_F(BundleTest, ReadsDesktopEntries) {
  const std::string path = folder / "org.example.App.desktop";
  writeFile(path,
            "# comment\n[Other]\nExec=/bin/false\n\n [Desktop Entry] \r\nType=Application\n"
            "# Exec=/bin/false\nExec[de]=/bin/false\nExec = /usr/bin/env a \nExec=/bin/false\n"
            "[Desktop Action new]\nExec=/bin/false\n");
  const auto bundle = Bundle::at(path);
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->identifier, "org.example.App");
  EXPECT_EQ(bundle->executable, "/usr/bin/env");
  EXPECT_THAT(bundle->arguments, ElementsAre("a"));

  EXPECT_EQ(bundle->directory, "/");
  EXPECT_EQ(bundle->obstacle, "");

  struct Case {
    const char* keys;
    const char* directory;
    const char* obstacle;
  };
  for (const Case& each :
       {Case{"Path=/usr\nTryExec=/bin/sh\nTerminal=false", "/usr", ""},
        Case{"Path=usr\nTryExec=sh", "/", ""}, Case{"TryExec=/bin", "/", "TryExec"},
        Case{"TryExec=velum-no-such-program", "/", "velum-no-such-program"},
        Case{"Terminal=true", "/", "terminal"}}) {
    writeFile(path, std::string("[Desktop Entry]\nExec=/bin/true\n") + each.keys + '\n');
    const auto other = Bundle::at(path);
    ASSERT_TRUE(other) << each.keys;
    EXPECT_EQ(other->identifier, "org.example.App") << "it is known to run all the same";
    EXPECT_EQ(other->directory, each.directory) << each.keys;
    EXPECT_EQ(other->obstacle.empty(), *each.obstacle == '\0') << each.keys;
    EXPECT_THAT(other->obstacle, testing::HasSubstr(each.obstacle));
  }
  writeFile(path, "[Desktop Entry]\nHidden=true\nExec=/bin/true\n");
  EXPECT_FALSE(Bundle::at(path));
  writeFile(path, "[Desktop Entry]\nType=Link\nURL=https://example.com\n");
  EXPECT_FALSE(Bundle::at(path));
}

TEST_F(BundleTest, SplitsAndExpandsExecLines) {
  EXPECT_THAT(words("/p  a\tb "), ElementsAre("/p", "a", "b"));
  EXPECT_THAT(words(R"("/a b" "" x"y z"w)"), ElementsAre("/a b", "", "xy zw"));
  // Two levels: the file's escapes first, then those inside quotes.
  EXPECT_THAT(words(R"(/p "\\$1 \\\\ \\"q\\" \\`" a\sb)"),
              ElementsAre("/p", R"($1 \ "q" `)", "a", "b"));
  EXPECT_THAT(words("/p %f %F %u %U %d %m --file=%f 100%%"), ElementsAre("/p", "--file=", "100%"));
  EXPECT_THAT(words("/p %i %c %k"),
              ElementsAre("/p", "--icon", "icon", "A  Name", folder / "some.desktop"));
  for (const char* exec : {"", " ", "\"/open", "/p %x", "/p %", "%f", "\"\" a"}) {
    EXPECT_THAT(words(exec), IsEmpty()) << exec;
  }
}

TEST_F(BundleTest, LooksPlainProgramNamesUpInPath) {
  writeFile(folder / "one/tool", "");  // not executable
  writeFile(folder / "two/tool", "");
  fs::permissions(folder / "two/tool", fs::perms::owner_all);
  fs::create_directories(folder / "zero/tool");
  const ScopedVariable path(
      "PATH", "relative::" + (folder / "zero") + ':' + (folder / "one") + ':' + (folder / "two"));
  EXPECT_THAT(words("tool a"), ElementsAre(folder / "two/tool", "a"));
  EXPECT_THAT(words("missing"), IsEmpty());
  EXPECT_THAT(words("two/tool"), IsEmpty());
  const ScopedVariable relative("PATH", fs::relative("/usr/bin").string());
  EXPECT_THAT(words("env"), IsEmpty());
}

}  // namespace
}  // namespace velum
