// The real helper beside a real application that quits in every way we know of, with whatever
// becomes of its bundle meanwhile.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "Velum/Relauncher.h"
#include "tests/support/RelaunchTest.h"

namespace velum::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

class EndToEnd : public RelaunchTest {};

TEST_F(EndToEnd, OpensTheApplicationAgainAfterItQuit) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  ::kill(application, SIGTERM);
  EXPECT_EQ(exitStatus(application), 0);
  EXPECT_EQ(next().name, "quit");
  const Event started = next();
  EXPECT_EQ(started.name, "started");
  // Nothing stands between them. (One that starts slowly outlives the helper, and we adopt it.)
  EXPECT_TRUE(started.parent == helper || started.parent == ::getpid()) << started.parent;
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_FALSE(hasEnded(started.pid, std::chrono::milliseconds(0))) << "it outlives the helper";

  const std::string text = log();
  std::size_t at = 0;
  for (const std::string& message : {"Looking for :" + bundle + ' ' + std::to_string(application),
                                     "Process " + std::to_string(application) + " has ended",
                                     std::string("App was relaunched successfully")}) {
    at = text.find(message, at);
    ASSERT_NE(at, std::string::npos) << message << " is missing in\n" << text;
  }
}

TEST_F(EndToEnd, OpensAnApplicationThatWasGoneBefore) {
  const pid_t application = startApplication();
  ::kill(application, SIGKILL);
  ASSERT_TRUE(exitStatus(application));
  for (const std::string& id : {std::to_string(application), std::string("-5"), std::string("+0"),
                                std::string("2147483647")}) {
    const pid_t helper = start(VELUM_RELAUNCHER, {bundle, id}, {});
    const Event started = next();
    EXPECT_EQ(started.name, "started") << id;
    EXPECT_EQ(exitStatus(helper), 0) << id;
    ::kill(started.pid, SIGKILL);
    ASSERT_TRUE(exitStatus(started.pid));
  }
}

TEST_F(EndToEnd, AnApplicationMayDieOnceItsHelperIsArmed) {
  // A process that arms the helper and is gone at once; the test then adopts the helper.
  Pipe pipe;
  const pid_t application = ::fork();
  if (application == 0) {
    for (const std::string& variable : environment()) {
      ::putenv(::strdup(variable.c_str()));  // NOLINT: until the exit below
    }
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    const pid_t helper = startRelauncher(VELUM_RELAUNCHER, bundle);
    const ssize_t size = ::write(pipe.writer.get(), &helper, sizeof helper);
    ::kill(::getpid(), size > 0 ? SIGKILL : SIGABRT);
  }
  EXPECT_EQ(exitStatus(application), 128 + SIGKILL);
  pid_t helper = 0;
  ASSERT_EQ(::read(pipe.reader.get(), &helper, sizeof helper), ssize_t{sizeof helper});
  const pid_t parent = next().parent;
  EXPECT_TRUE(parent == helper || parent == ::getpid()) << parent;
  EXPECT_EQ(exitStatus(helper), 0);
}

TEST_F(EndToEnd, OpensTheApplicationWhileSomebodyHoldsTheLog) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  const UniqueFd file(::open(logFile().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(file.get(), LOCK_EX), 0);
  ::kill(application, SIGKILL);
  EXPECT_EQ(next().name, "started");
  ASSERT_EQ(::flock(file.get(), LOCK_UN), 0);
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_TRUE(isLogged("Process " + std::to_string(application) + " has ended"));
}

TEST_F(EndToEnd, RefusesAWrongNumberOfArguments) {
  EXPECT_EQ(exitStatus(start(VELUM_RELAUNCHER, {}, {})), 1);
  EXPECT_TRUE(isLogged("Unexpected arguments count: 1"));
  EXPECT_EQ(exitStatus(start(VELUM_RELAUNCHER, {bundle, "1", "x"}, {})), 1);
  EXPECT_TRUE(isLogged("Unexpected arguments count: 4"));
}

TEST_F(EndToEnd, StopsAtOnceAtWhatIsNoProcessId) {
  for (const char* text : {"", "+", "-", "12a", " 1", "0x10", "+-1", "2147483648"}) {
    EXPECT_EQ(exitStatus(start(VELUM_RELAUNCHER, {bundle, text}, {})), 128 + SIGABRT) << text;
  }
  EXPECT_TRUE(isQuiet());
  EXPECT_FALSE(isLogged("Looking for")) << log();
}

TEST_F(EndToEnd, GivesTheApplicationNothingOfTheHelper) {
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

TEST_F(EndToEnd, OpensTheNewerProgramOnceTheBundleIsBack) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  makeScript("#!/bin/sh\necho newer >> \"$SAMPLE_APP_EVENTS\"\nexec sleep 1000\n");
  std::filesystem::rename(bundle, folder / "away");
  ::kill(application, SIGKILL);
  EXPECT_TRUE(eventually([this] { return isLogged("left: 9"); }));
  EXPECT_TRUE(isLogged("Not opened: ")) << log();
  std::filesystem::rename(folder / "away", bundle);
  EXPECT_EQ(events.next(), "newer");
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_TRUE(isQuiet());
}

}  // namespace
}  // namespace velum::test
