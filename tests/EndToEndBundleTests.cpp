// The real helper and what can become of a bundle while its application quits.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/RelaunchTest.h"

namespace velum::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

class Relaunch : public RelaunchTest {
 protected:
  /// Ends the application while a helper watches it; the helper is to succeed.
  void relaunch(const std::string& path, const std::vector<std::string>& helperEnvironment = {}) {
    const pid_t application = startApplication();
    const pid_t helper = startHelper(path, application, helperEnvironment);
    ::kill(application, SIGKILL);
    EXPECT_EQ(exitStatus(helper), 0) << log();
  }
};

TEST_F(Relaunch, GivesTheApplicationNothingOfTheHelper) {
  ::setenv("VELUM_TEST_OWN", "kept", 1);
  relaunch(bundle, {"SAMPLE_APP_REPORT=" + (folder / "report")});
  const Event started = next();
  std::vector<std::string> lines;
  std::vector<std::string> descriptors;
  std::istringstream report(readFile(folder / "report"));
  for (std::string line; std::getline(report, line);) {
    lines.push_back(line);
    if (line.starts_with("descriptor")) descriptors.push_back(line.substr(0, 13));
    EXPECT_THAT(line, Not(HasSubstr("VELUM_READY_FD")));
  }
  EXPECT_EQ(started.session, started.pid);
  EXPECT_THAT(lines, Contains("cwd /"));
  EXPECT_THAT(lines, Contains("argument " + program()));
  EXPECT_THAT(lines, Contains("SigBlk: 0000000000000000"));
  EXPECT_THAT(lines, Contains("SigIgn: 0000000000000000"));
  EXPECT_THAT(lines, Contains("environment VELUM_BUNDLE_PATH=" + bundle));
  EXPECT_THAT(lines, Contains("environment VELUM_TEST_OWN=kept"));
  EXPECT_THAT(descriptors, ElementsAre("descriptor 0 ", "descriptor 1 ", "descriptor 2 "));
  EXPECT_FALSE(hasEnded(started.pid, std::chrono::milliseconds(0)));
  EXPECT_THAT(Family::children().size(), 2U) << "the killed one and the new one";
}

TEST_F(Relaunch, RetriesAnApplicationThatDiesAtOnce) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  makeScript(
      "#!/bin/sh\n"
      "echo $$ >> \"$SAMPLE_APP_EVENTS\"\n"
      "[ -e \"$HOME/flag\" ] && exec sleep 1000\n"
      "touch \"$HOME/flag\"\n"
      "kill -SEGV $$\n");
  ::kill(application, SIGKILL);
  EXPECT_TRUE(events.next());
  EXPECT_TRUE(events.next());
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_TRUE(isLogged("Attempts left: 9"));
  EXPECT_FALSE(isLogged("Attempts left: 8"));
  EXPECT_TRUE(isQuiet());
}

TEST_F(Relaunch, IsContentWithALauncherThatHandsOver) {
  relaunch(bundle, {"SAMPLE_APP_EXIT=0"});
  EXPECT_EQ(next().name, "started");
  EXPECT_EQ(next().name, "quit");
  EXPECT_TRUE(isQuiet());
  EXPECT_FALSE(isLogged("Attempts left"));
}

TEST_F(Relaunch, RecoversWhenTheBundleComesBack) {
  struct Trouble {
    const char* name;
    std::function<void()> make;
  };
  const std::string away = folder / "away";
  const std::vector<Trouble> troubles{
      {"deleted", [&] { fs::rename(bundle, away); }},
      {"not executable",
       [&] {
         fs::copy(bundle, away, recursively);
         fs::permissions(program(), fs::perms::owner_read);
       }},
      {"no interpreter",
       [&] {
         fs::copy(bundle, away, recursively);
         makeScript("#!/nowhere/interpreter\n");
       }},
  };
  for (const Trouble& trouble : troubles) {
    const pid_t application = startApplication();
    const pid_t helper = startHelper(bundle, application);
    trouble.make();
    const auto failures = [this] {
      const std::string text = log();
      const std::string message = "left: 9";
      std::size_t count = 0;
      for (auto at = text.find(message); at != std::string::npos; at = text.find(message, at + 1)) {
        ++count;
      }
      return count;
    };
    const std::size_t before = failures();
    ::kill(application, SIGKILL);
    EXPECT_TRUE(waitForLog([&] { return failures() > before; })) << trouble.name;
    EXPECT_TRUE(isLogged("Not opened: ")) << log();
    fs::remove_all(bundle);
    fs::rename(away, bundle);
    const Event started = next();
    EXPECT_EQ(started.name, "started") << trouble.name;
    EXPECT_EQ(exitStatus(helper), 0) << trouble.name;
    ::kill(started.pid, SIGKILL);
    EXPECT_TRUE(exitStatus(started.pid));
  }
}

TEST_F(Relaunch, OpensTheNewerBundleThatTookThePlace) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  fs::rename(bundle, folder / "old");
  fs::copy(folder / "old", bundle, recursively);
  makeScript("#!/bin/sh\necho newer >> \"$SAMPLE_APP_EVENTS\"\nexec sleep 1000\n");
  ::kill(application, SIGKILL);
  EXPECT_EQ(events.next(), "newer");
  EXPECT_EQ(exitStatus(helper), 0);
}

TEST_F(Relaunch, NeedsNoUsablePropertyList) {
  // Without one, the program is named like the folder.
  fs::copy(program(), bundle + "/Contents/MacOS/Sample VPN");
  const std::string list = bundle + "/Contents/Info.plist";
  for (const std::string& content :
       {std::string("<plist><dict><key>"), std::string(), std::string(std::size_t{20} << 20U, ' '),
        std::string("<plist version=\"1.0\"><dict/></plist>")}) {
    writeFile(list, content);
    relaunch(bundle);
    const Event started = next();
    EXPECT_EQ(started.name, "started") << content.substr(0, 20);
    ::kill(started.pid, SIGKILL);
    EXPECT_TRUE(exitStatus(started.pid));
  }
}

TEST_F(Relaunch, TakesAnyPath) {
  const std::string strange = folder / "a\nb\xff '\"$(x) \\.app";
  fs::copy(bundle, strange, recursively);
  relaunch(strange);
  const Event first = next();
  EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(first.pid) + "/exe"),
            strange + "/Contents/MacOS/sample_app");
  ::kill(first.pid, SIGKILL);
  EXPECT_TRUE(exitStatus(first.pid));

  fs::create_directory_symlink(bundle, folder / "link.app");
  relaunch(folder / "link.app");
  EXPECT_EQ(next().name, "started");
}

}  // namespace
}  // namespace velum::test
