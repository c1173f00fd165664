// Every system call of the helper fails once, and once the helper is killed there.

#include "tests/faults/FaultTest.h"
#include "tests/support/RelaunchTest.h"

namespace velum::test {
namespace {

/// One relaunch after the other, in the test's own process.
class Relaunch final : public RelaunchTest {
 public:
  void TestBody() override {}

  /// Whether the application ran again at the end and the helper says so.
  bool run() {
    const pid_t application = startApplication();
    Pipe ready;
    const pid_t helper = spawnHelper(bundle, application, ready);
    ::kill(application, SIGKILL);
    const auto status = exitStatus(helper);
    EXPECT_TRUE(status) << "it hangs";
    const bool isStarted = status == 0 && next().name == "started";
    EXPECT_TRUE(isStarted || status != 0) << "it ends with 0 for nothing";
    for (const pid_t left : Family::children()) {
      ::kill(left, SIGKILL);
      ::waitpid(left, nullptr, 0);
    }
    while (!isQuiet()) continue;
    return isStarted;
  }
};

TEST(Faults, Relaunch) {
  std::unique_ptr<Relaunch> relaunch;
  failEveryCall({
      .enter =
          [&](const std::string& folder) {
            ::setenv("TMPDIR", folder.c_str(), 1);
            relaunch = std::make_unique<Relaunch>();
          },
      .run = [&] { return relaunch->run(); },
      .verify = [](Outcome) {},
      // What it can do without, it does without; its files stay in their folder.
      .mayHide = [](const GatedCall&) { return true; },
      .isTidying = [](const GatedCall&) { return true; },
      .mayRemain = [](const std::string&) { return true; },
      // A leak checker looks at the threads when the helper ends.
      .isSpared =
          [](const GatedCall& call) {
            return call.subject.find("/task/") != std::string::npos &&
                   call.subject.ends_with("/status");
          },
      .mostCalls = 16,
      .program = VELUM_RELAUNCHER,
  });
}

}  // namespace
}  // namespace velum::test
