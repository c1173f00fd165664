#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class VelumctlNotify : public VelumctlTest {
 protected:
  VelumctlNotify() { ::setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1); }
};

TEST_F(VelumctlNotify, ListensToWhatIsPosted) {
  RunningProgram listener = start({"notify", "listen", "a name", "b/\xFF", "--json"});
  EXPECT_TRUE(prints(listener, "{\"name\":\"a name\"}\n", [this] {
    EXPECT_EQ(run({"notify", "post", "a name"}).status, 0);
  }));
  EXPECT_EQ(run({"notify", "post", "c", "b/\xFF", "--json"}).output,
            "{\"name\":\"c\"}\n{\"name\":\"b/\uFFFD\"}\n");
  EXPECT_THAT(listener.readUntil("b/"), HasSubstr("{\"name\":\"b/\uFFFD\"}\n"));
  EXPECT_THAT(listener.readUntil("b/"), testing::Not(HasSubstr("\"c\"")));
  listener.closeOutput();
  run({"notify", "post", "a name"});
  EXPECT_EQ(listener.wait(), 0) << "its reader has gone";
}

TEST_F(VelumctlNotify, WaitingFailsWhenTheTimeRunsOut) {
  EXPECT_EQ(run({"notify", "post", "name"}).status, 0);  // does not count
  const Result late = run({"notify", "wait", "name", "--timeout", "0.02", "--json"});
  EXPECT_EQ(late.output, "{\"name\":\"name\",\"posted\":false}\n");
  EXPECT_EQ(late.status, 1);
  RunningProgram waiting = start({"notify", "wait", "name", "--json"});
  EXPECT_TRUE(prints(waiting, "{\"name\":\"name\",\"posted\":true}\n", [this] {
    run({"notify", "post", "name"});
  }));
  EXPECT_EQ(waiting.wait(), 0);
}

TEST_F(VelumctlNotify, AnswersRequests) {
  const Strings agreed{"status", "--id", "1.7", "--prefix", "com.example"};
  const auto with = [&](const char* command, const Strings& more) {
    return Strings{command} + agreed + more;
  };
  const Result late = run(with("request", {"--timeout", "0.02", "--json"}));
  EXPECT_EQ(late.output, "{\"name\":\"status\",\"answered\":false}\n");
  EXPECT_EQ(late.status, 1);
  RunningProgram responder = start(with("respond", {}));
  EXPECT_TRUE(eventually([&] { return run(with("request", {"--timeout", "1"})).status == 0; }));
  EXPECT_THAT(responder.readUntil("status\n"), StartsWith("status\n"));
  RunningProgram once = start(with("respond", {"--once", "--json"}));
  EXPECT_TRUE(prints(once, "{\"name\":\"status\"}\n", [&] { run(with("request", {})); }));
  EXPECT_EQ(once.wait(), 0);
}

TEST_F(VelumctlNotify, SaysWhatIsWrong) {
  writeFile(folder_ / "velum/notify", "in the way");
  const std::vector<std::pair<Strings, int>> cases{
      {{"notify", "wait"}, 2},
      {{"notify", "wait", "a", "b"}, 2},
      {{"notify", "wait", "a", "--timeout", "-1"}, 2},
      {{"request", "status", "--id", "1"}, 2},
      {{"respond", "status", "--prefix", "1"}, 2},
      {{"notify", "listen", "name"}, 1},
      {{"respond", "status", "--id", "1", "--prefix", "p"}, 1}};
  for (const auto& [arguments, status] : cases) EXPECT_EQ(run(arguments).status, status);
}

}  // namespace
}  // namespace velum::test
