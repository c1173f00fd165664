// The real helper beside a real application that quits in every way we know of.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

#include "Velum/Relauncher.h"
#include "tests/support/RelaunchTest.h"

namespace velum::test {
namespace {

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

TEST_F(EndToEnd, MakesItsOwnWhatItWasStartedWith) {
#ifdef VELUM_THREAD_SANITIZER
  GTEST_SKIP() << "this sanitizer writes a file of its own before the helper begins";
#endif
  // What the starter closed, ignored and limited.
  helperCommand = {"/bin/sh", "-c", "trap '' CHLD; ulimit -f 0; exec \"$@\" 0<&- 1>&- 2>&-", "sh",
                   VELUM_RELAUNCHER};
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application, {"SAMPLE_APP_EXIT=0"});
  for (const char* stream : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(helper) + "/fd/" + stream),
              "/dev/null");
  }
  ::kill(application, SIGKILL);
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_EQ(next().name, "started");
  EXPECT_EQ(next().name, "quit");
  EXPECT_TRUE(isQuiet()) << "how the new instance ended was not known";
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

// From the end of the application to the new process: one call for each process of the machine, and
// others, but for those by which the helper looks at other applications that happen to run.
TEST_F(EndToEnd, NeedsFewSystemCalls) {
#ifdef VELUM_SANITIZED
  GTEST_SKIP() << "sanitizers make system calls of their own";
#endif
  const std::string strace = "/usr/bin/strace";
  const std::string trace = folder / "trace";
  constexpr std::string_view preparation = "/journal/stdout";  // the last of it
  if (exitStatus(start(strace, {"-qo", trace, "true"}, {})) != 0) {
    GTEST_SKIP() << "tracing is not permitted here";
  }
  helperCommand = {strace, "-D", "-qqyo", trace, "-s256", VELUM_RELAUNCHER};
  // The second time, there is a record of the first.
  for (int round = 0; round < 2; ++round) {
    const pid_t application = startApplication();
    const pid_t helper = startHelper(bundle, application);
    EXPECT_TRUE(eventually([&] {  // it has prepared everything and sleeps
      const std::string calls = readFile(trace);
      const std::size_t last = calls.rfind('\n') + 1;
      return calls.find(preparation) != std::string::npos &&
             calls.find("epoll_wait(", last) == last;
    })) << readFile(trace);
    ::kill(application, SIGKILL);
    const Event started = next();
    EXPECT_EQ(exitStatus(helper), 0);
    const std::regex foreign("/proc/(?!" + std::to_string(helper) +
                             R"(/)[0-9]| \(deleted\)|\.app\b|/Contents)");
    const std::string all = readFile(trace);
    const std::size_t end = all.find(", -1) = 1\n", all.find(preparation));
    std::istringstream calls(all.substr(end, all.find("\nclone", end) - end));
    int looks = 0;
    std::string others;
    std::string call;
    for (std::getline(calls, call); std::getline(calls, call);) {
      const bool isOfOthers =
          call.find(bundle) == std::string::npos && std::regex_search(call, foreign);
      if (call.starts_with("readlinkat(")) {
        ++looks;
      } else if (!isOfOthers) {
        others += call + '\n';
      }
    }
    EXPECT_GT(looks, 0);
    EXPECT_LE(std::ranges::count(others, '\n'), 35) << others;
    ::kill(started.pid, SIGKILL);
    EXPECT_TRUE(exitStatus(started.pid));
  }
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

TEST_F(EndToEnd, SleepsWhileItWaits) {
#ifdef VELUM_THREAD_SANITIZER
  GTEST_SKIP() << "the thread sanitizer keeps a thread of its own busy";
#endif
  const pid_t other = startShell("exec sleep 1000");
  const pid_t helper = startHelper(bundle, other);
  const auto switches = [helper] {
    long total = 0;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(helper) + "/task")) {
      std::istringstream status(readFile(thread.path() / "status"));
      for (std::string line; std::getline(status, line);) {
        if (line.starts_with("voluntary_ctxt_switches:")) total += std::stol(line.substr(24));
      }
    }
    return total;
  };
  // What it does right after it is armed comes to rest first.
  EXPECT_FALSE(hasEnded(helper, std::chrono::milliseconds(200)));
  const long before = switches();
  EXPECT_FALSE(hasEnded(helper, std::chrono::milliseconds(500)));
  EXPECT_LE(switches() - before, 1);
}

}  // namespace
}  // namespace velum::test
