// The real helper and what can become of a bundle while its application quits.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/RelaunchTest.h"

namespace velum::test {
namespace {

using ::testing::Contains;
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
  std::istringstream report(readFile(folder / "report"));
  for (std::string line; std::getline(report, line);) {
    lines.push_back(line);
    EXPECT_THAT(line, Not(HasSubstr("VELUM_READY_FD")));
  }
  EXPECT_EQ(started.session, started.pid);
  EXPECT_THAT(lines, Contains("cwd /"));
  EXPECT_THAT(lines, Contains("argument " + program()));
  EXPECT_THAT(lines, Contains("environment VELUM_BUNDLE_PATH=" + bundle));
  EXPECT_THAT(lines, Contains("environment VELUM_TEST_OWN=kept"));
  EXPECT_FALSE(hasEnded(started.pid, std::chrono::milliseconds(0)));
  EXPECT_THAT(Family::children().size(), 2U) << "the killed one and the new one";
}

TEST_F(Relaunch, OpensTheNewerProgramOnceTheBundleIsBack) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  makeScript("#!/bin/sh\necho newer >> \"$SAMPLE_APP_EVENTS\"\nexec sleep 1000\n");
  fs::rename(bundle, folder / "away");
  ::kill(application, SIGKILL);
  EXPECT_TRUE(eventually([this] { return isLogged("left: 9"); }));
  EXPECT_TRUE(isLogged("Not opened: ")) << log();
  fs::rename(folder / "away", bundle);
  EXPECT_EQ(events.next(), "newer");
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_TRUE(isQuiet());
}

TEST_F(Relaunch, TakesALinkToTheBundle) {
  fs::create_directory_symlink(bundle, folder / "link.app");
  relaunch(folder / "link.app");
  EXPECT_EQ(next().name, "started");
}

}  // namespace
}  // namespace velum::test
