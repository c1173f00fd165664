// The real helper beside the user's service manager, a working one and others. The suite InSession
// holds what happens in a session of the test's own, to which Session carries it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Velum/Platform/Linux/Processes/ProcessStatus.h"
#include "Velum/Platform/Linux/Processes/UserManager.h"
#include "Velum/Platform/Linux/Workspace/ProcessTable.h"
#include "tests/support/RelaunchTest.h"

namespace velum::test {
namespace {

using ::testing::EndsWith;

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
    for (const std::string& word : {std::string("/bin/sh"), folder / "service",
                                    std::string(VELUM_RELAUNCHER), bundle, folder.path()}) {
      arguments.push_back(word);
    }
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

class Session : public RelaunchTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(Session, Runs) {
  SpawnOptions options;
  options.executable.assign(VELUM_USER_SESSION);
  options.arguments = {options.executable, folder.path(),
                       std::filesystem::read_symlink("/proc/self/exe"),
                       std::string("--gtest_filter=DISABLED_InSession.") + GetParam(),
                       "--gtest_also_run_disabled_tests"};
  options.standardStreams = {SpawnOptions::nullDevice, STDOUT_FILENO, STDERR_FILENO};
  constexpr int notPermitted = 77;
  const std::optional<int> status = exitStatus(spawn(options));
  if (status == notPermitted) GTEST_SKIP() << "mounts and control groups are not permitted here";
  EXPECT_EQ(status, 0) << readFile(folder / "manager.txt");
}

INSTANTIATE_TEST_SUITE_P(EndToEnd, Session,
                         ::testing::Values("MovesTheApplicationOutOfTheOldGroup",
                                           "SurvivesTheServiceThatTheApplicationWas",
                                           "FindsItselfOrphanedWhenTheManagerAdoptedIt",
                                           "KnowsAServiceByTheProcessThatTheManagerStarted"),
                         [](const auto& test) { return std::string(test.param); });

class WithoutManager : public RelaunchTest {
 protected:
  /// Relaunches the application; what the log says of its control group.
  void relaunch() {
    const pid_t application = startApplication();
    const pid_t helper = startHelper(bundle, application);
    ::kill(application, SIGKILL);
    EXPECT_EQ(next().name, "started");
    EXPECT_EQ(exitStatus(helper), 0);
  }
};

TEST_F(WithoutManager, TheApplicationIsStartedPlainlyOnABusWithoutOne) {
  const std::string bus = folder / "bus";
  SpawnOptions options;
  options.executable.assign("/usr/bin/dbus-daemon");
  const Pipe address;
  options.extraDescriptor = address.writer.get();
  options.arguments = {options.executable, "--session",   "--address=unix:path=" + bus,
                       "--nofork",         "--nopidfile", "--print-address=3"};
  spawn(options);
  ASSERT_TRUE(isReadable(address.reader.get()));
  relaunch();
  EXPECT_TRUE(isLogged("stays in this control group: ")) << log();
}

TEST_F(WithoutManager, ABusThatNeverAnswersDoesNotHoldTheHelper) {
  const UniqueFd silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (folder / "bus").copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(silent.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(silent.get(), 1), 0);
  relaunch();
  EXPECT_TRUE(isLogged("stays in this control group: no answer")) << log();
}

}  // namespace
}  // namespace velum::test
