#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "tests/support/TemporaryFolder.h"
#include "tests/velumctl/RunningProgram.h"

namespace velum::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class VelumctlNotify : public testing::Test {
 protected:
  VelumctlNotify() { ::setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1); }

  static RunningProgram start(Strings arguments) {
    arguments.insert(arguments.begin(), VELUM_VELUMCTL);
    return RunningProgram::piped(arguments);
  }
  // Its output and exit status.
  static std::pair<std::string, int> run(const Strings& arguments) {
    RunningProgram program = start(arguments);
    std::string output = program.readToEnd();
    const int status = program.wait();
    return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
  }
  // Acts until the program has printed `text`: nothing tells when it has begun to listen.
  template <class Action>
  static bool prints(RunningProgram& program, std::string_view text, Action action) {
    return eventually([&] {
      action();
      return program.hasPrinted(text, std::chrono::milliseconds(50));
    });
  }

  TemporaryFolder folder_;
};

TEST_F(VelumctlNotify, ListensToWhatIsPosted) {
  RunningProgram listener = start({"notify", "listen", "a name", "b/\xFF", "--json"});
  EXPECT_TRUE(prints(listener, "{\"name\":\"a name\"}\n", [] {
    EXPECT_EQ(run({"notify", "post", "a name"}).second, 0);
  }));
  const auto [output, status] = run({"notify", "post", "c", "b/\xFF", "--json"});
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output, "{\"name\":\"c\"}\n{\"name\":\"b/\uFFFD\"}\n");
  EXPECT_THAT(listener.readUntil("b/"), HasSubstr("{\"name\":\"b/\uFFFD\"}\n"));
  EXPECT_THAT(listener.readUntil("b/"), testing::Not(HasSubstr("\"c\"")));
  listener.signal(SIGINT);
  EXPECT_TRUE(WIFSIGNALED(listener.wait()));
}

TEST_F(VelumctlNotify, ListeningEndsWithItsReader) {
  RunningProgram listener = start({"notify", "listen", "name"});
  EXPECT_TRUE(prints(listener, "name\n", [] { run({"notify", "post", "name"}); }));
  listener.closeOutput();
  run({"notify", "post", "name"});
  EXPECT_EQ(listener.wait(), 0);
}

TEST_F(VelumctlNotify, WaitingFailsWhenTheTimeRunsOut) {
  EXPECT_EQ(run({"notify", "post", "name"}).second, 0);  // does not count
  EXPECT_EQ(run({"notify", "wait", "name", "--timeout", "0.02", "--json"}),
            std::pair(std::string("{\"name\":\"name\",\"posted\":false}\n"), 1));
  RunningProgram waiting = start({"notify", "wait", "name", "--json"});
  EXPECT_TRUE(prints(waiting, "{\"name\":\"name\",\"posted\":true}\n", [] {
    run({"notify", "post", "name"});
  }));
  EXPECT_EQ(waiting.wait(), 0);
}

TEST_F(VelumctlNotify, AnswersRequests) {
  const Strings agreed{"status", "--id", "1.7", "--prefix", "com.example"};
  const auto with = [&](const char* command, const Strings& more) {
    Strings arguments{command};
    arguments.insert(arguments.end(), agreed.begin(), agreed.end());
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  };
  EXPECT_EQ(run(with("request", {"--timeout", "0.02", "--json"})),
            std::pair(std::string("{\"name\":\"status\",\"answered\":false}\n"), 1));
  RunningProgram responder = start(with("respond", {}));
  EXPECT_TRUE(eventually([&] { return run(with("request", {"--timeout", "1"})).second == 0; }));
  EXPECT_THAT(responder.readUntil("status\n"), StartsWith("status\n"));
  RunningProgram once = start(with("respond", {"--once", "--json"}));
  EXPECT_TRUE(prints(once, "{\"name\":\"status\"}\n", [&] { run(with("request", {})); }));
  EXPECT_EQ(once.wait(), 0);
}

TEST_F(VelumctlNotify, SaysWhatIsWrong) {
  EXPECT_EQ(run({"notify", "wait"}).second, 2);
  EXPECT_EQ(run({"notify", "wait", "a", "b"}).second, 2);
  EXPECT_EQ(run({"notify", "wait", "a", "--timeout", "-1"}).second, 2);
  EXPECT_EQ(run({"request", "status", "--id", "1"}).second, 2);
  EXPECT_EQ(run({"respond", "status", "--prefix", "1"}).second, 2);
  writeFile(folder_ / "velum/notify", "in the way");
  EXPECT_EQ(run({"notify", "post", "name"}).second, 1);
  EXPECT_EQ(run({"notify", "listen", "name"}).second, 1);
  EXPECT_EQ(run({"respond", "status", "--id", "1", "--prefix", "p"}).second, 1);
}

}  // namespace
}  // namespace velum::test
