// The real helper on this system: what it makes of what it inherits, what it costs, and how it
// fares beside the user's service manager, a working one and others. The suite InSession holds what
// happens in a session of the test's own, to which Session carries it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

#include "Velum/Platform/Linux/Processes/ProcessStatus.h"
#include "Velum/Platform/Linux/Processes/UserManager.h"
#include "Velum/Platform/Linux/Workspace/ProcessTable.h"
#include "tests/support/RelaunchTest.h"
#include "tests/support/SecretService.h"

namespace velum::test {
namespace {

using ::testing::EndsWith;

class EndToEndHere : public RelaunchTest {};

TEST_F(EndToEndHere, MakesItsOwnWhatItWasStartedWith) {
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

// From the end of the application to the new process: one call for each process of the machine, and
// others, but for those by which the helper looks at other applications that happen to run.
TEST_F(EndToEndHere, NeedsFewSystemCalls) {
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

TEST_F(EndToEndHere, SleepsWhileItWaits) {
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

class DISABLED_InSession : public RelaunchTest {
 protected:
  DISABLED_InSession() {
    const char* const session = std::getenv("XDG_RUNTIME_DIR");
    runtimeFolder = session != nullptr ? session : "";
  }

  /// Runs a script as a service of the manager. $1 is the helper, $2 the bundle, $3 the folder.
  void startService(const std::string& name, const std::string& script) const {
    writeFile(folder / "service", script);
    std::vector<std::string> arguments{
        "-c", R"(exec systemd-run "$@")", "sh", "--user", "--quiet", "--unit=" + name};
    for (const std::string& variable : environment()) arguments.push_back("--setenv=" + variable);
    arguments.insert(arguments.end(),
                     {"/bin/sh", folder / "service", VELUM_RELAUNCHER, bundle, folder.path()});
    ASSERT_EQ(exitStatus(start("/bin/sh", arguments, {})), 0);
  }

  static std::string groupOf(pid_t pid) { return controlGroupOf(pid).value_or(""); }
};

TEST_F(DISABLED_InSession, MovesTheApplicationOutOfTheOldGroup) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  ::kill(application, SIGKILL);
  const Event started = next();
  EXPECT_EQ(exitStatus(helper), 0);
  const std::string scope = "app-" + identifier + '-' + std::to_string(started.pid) + ".scope";
  EXPECT_THAT(groupOf(started.pid), EndsWith("/app.slice/" + scope));
  EXPECT_TRUE(isLogged("Process " + std::to_string(started.pid) + " is in " + scope)) << log();
}

TEST_F(DISABLED_InSession, SurvivesTheServiceThatTheApplicationWas) {
  // When the first process of a service ends, the manager ends what is left in it.
  startService("app-" + identifier,
               "mkfifo \"$3/ready\"; exec 4<>\"$3/ready\"; "
               "VELUM_READY_FD=3 \"$1\" \"$2\" $$ 3>&4 & "
               "head -c 1 <&4; exit 0");
  EXPECT_EQ(next().name, "started") << log();
  EXPECT_TRUE(eventually([&] { return isLogged("App was relaunched successfully"); })) << log();
}

TEST_F(DISABLED_InSession, FindsItselfOrphanedWhenTheManagerAdoptedIt) {
  const pid_t other = startShell("exec sleep 1000");
  // The helper starts when the shell that forked it is gone.
  startService("launcher", R"(mkfifo "$3/go"
    (sh -c 'read go < "$3/go"; exec "$1" "$2" "$4"' sh "$@" )" +
                               std::to_string(other) +
                               R"( &)
    echo > "$3/go"
    exec sleep 1000)");
  EXPECT_EQ(next().name, "started") << log();
  EXPECT_FALSE(hasEnded(other, std::chrono::milliseconds(0)));
}

TEST_F(DISABLED_InSession, KnowsAServiceByTheProcessThatTheManagerStarted) {
  LineReader lines(folder / "lines");
  startService("app-gnome-org.example.Demo@1",
               R"(sleep 1000 & echo $$ > "$3/lines"; echo $! > "$3/lines"; wait)");
  const pid_t first = std::stoi(lines.next().value_or(std::to_string(noProcess)));
  const pid_t child = std::stoi(lines.next().value_or(std::to_string(noProcess)));
  const pid_t leader = startShell("exec sleep 1000");
  const TransientScope scope{applicationScopeName("org.example.Scope", leader), "", leader};
  ASSERT_EQ(startScope(scope, deadline), std::nullopt);
  ProcessSources sources;
  EXPECT_FALSE(sources.desktop.candidates()) << "each process is asked";
  for (int round = 0; round < 2; ++round) {
    ProcessTable table({}, sources);
    EXPECT_EQ(table.bundleIdentifier(first), "org.example.Demo") << round;
    EXPECT_EQ(table.bundleIdentifier(child), std::nullopt) << round;
    EXPECT_EQ(table.bundleIdentifier(leader), "org.example.Scope") << round;
    sources.desktop.learn(table.ids());
    EXPECT_TRUE(sources.desktop.candidates()) << "the slices are listed";
  }
}

TEST(Session, HoldsWhatIsTestedInSession) {
  const TemporaryFolder folder;
  SpawnOptions options;
  options.executable.assign(VELUM_USER_SESSION);
  options.arguments = {options.executable, folder.path(),
                       std::filesystem::read_symlink("/proc/self/exe"),
                       "--gtest_filter=DISABLED_InSession.*", "--gtest_also_run_disabled_tests"};
  options.standardStreams = {SpawnOptions::nullDevice, STDOUT_FILENO, STDERR_FILENO};
  constexpr int notPermitted = 77;
  const std::optional<int> status = exitStatus(spawn(options));
  if (status == notPermitted) GTEST_SKIP() << "mounts and control groups are not permitted here";
  EXPECT_EQ(status, 0) << readFile(folder / "manager.txt");
}

class WithoutManager : public RelaunchTest {};

TEST_F(WithoutManager, TheApplicationIsStartedPlainlyOnABusWithoutOne) {
  const PrivateBus bus(runtimeFolder);
  relaunch(bundle);
  EXPECT_EQ(next().name, "started");
  EXPECT_TRUE(isLogged("stays in this control group: ")) << log();
}

TEST_F(WithoutManager, ABusThatNeverAnswersDoesNotHoldTheHelper) {
  const UniqueFd silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (folder / "bus").copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(silent.get(), 1), 0);
  relaunch(bundle);
  EXPECT_EQ(next().name, "started");
  EXPECT_TRUE(isLogged("stays in this control group: no answer")) << log();
}

}  // namespace
}  // namespace velum::test
