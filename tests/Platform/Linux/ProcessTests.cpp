#include <gtest/gtest.h>

#include "Velum/Platform/Linux/Processes/ControlGroup.h"
#include "Velum/Platform/Linux/Processes/ProcessStatus.h"
#include "tests/support/Processes.h"

namespace velum::test {
namespace {

TEST(ProcessStatus, IsReadBehindAnyName) {
  const auto status = ProcessStatus::parse(
      "42 (a) R (b) S 7 40 41 0 -1 4194368 1 2 3 4 5 6 7 8 20 0 3 0 123456789012 1 2 3\n");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->state, 'S');
  EXPECT_EQ(status->parent, 7);
  EXPECT_EQ(status->group, 40);
  EXPECT_EQ(status->session, 41);
  EXPECT_EQ(status->threads, 3);
  EXPECT_EQ(status->startTime, 123456789012U);
  EXPECT_TRUE(status->isForkedCopy());
  EXPECT_FALSE(status->isKernelThread());

  EXPECT_FALSE(ProcessStatus::parse(""));
  EXPECT_FALSE(ProcessStatus::parse("42 (name) S 7 40"));
  EXPECT_FALSE(ProcessStatus::parse("42 (name) S x 40 41 0 -1 0 1 2 3 4 5 6 7 8 20 0 3 0 1"));
}

TEST(ProcessStatus, TellsTheDeadFromThoseWhoseFirstThreadLeft) {
  ProcessStatus status;
  status.state = 'Z';
  status.threads = 1;
  EXPECT_FALSE(status.isAlive());
  status.threads = 2;
  EXPECT_TRUE(status.isAlive());
}

TEST(ProcessList, HoldThisProcessAndNoKernelThread) {
  const std::vector<pid_t> ids = ProcessList().ids();
  EXPECT_TRUE(std::binary_search(ids.begin(), ids.end(), ::getpid()));
  for (const pid_t id : ids) {
    const auto status = ProcessStatus::of(id);
    EXPECT_FALSE(status && status->isKernelThread() && status->parent == 2) << id;
  }
}

TEST(ControlGroup, IsTheManagersOwnWhereThereAreSeveral) {
  EXPECT_EQ(controlGroup("0::/user.slice/a\n"), "/user.slice/a");
  EXPECT_EQ(controlGroup("9:name=systemd:/user.slice/b:c\n8:pids:/x\n0::/\n"), "/user.slice/b:c");
  EXPECT_EQ(controlGroup("9:name=systemd:/\n0::/user.slice/a\n"), "/user.slice/a");
  EXPECT_EQ(controlGroup("8:pids:/x\n0::/\n"), std::nullopt);
  EXPECT_EQ(controlGroup(""), std::nullopt);
}

TEST(ControlGroup, NamesTheApplicationOfItsLeaderAlone) {
  const std::string folder = "/user.slice/user@1000.service/app.slice/";
  EXPECT_EQ(applicationOfScope(folder + "app-gnome-org.example.App-42.scope", 42),
            "org.example.App");
  EXPECT_EQ(applicationOfScope(folder + "app-a\\x2db-42.scope", 42), "a-b");
  EXPECT_EQ(applicationOfScope(folder + "app-gnome-org.example.App-42.scope", 43), std::nullopt);
  EXPECT_EQ(applicationOfScope(folder + "app-gnome-org.example.App-142.scope", 42), std::nullopt);
  EXPECT_EQ(applicationOfScope(folder + "session-42.scope", 42), std::nullopt);
  EXPECT_EQ(applicationOfScope(folder + "app--42.scope", 42), std::nullopt);

  EXPECT_EQ(applicationOfService(folder + "app-gnome-a.b@autostart.service"), "a.b");
  EXPECT_EQ(applicationOfService(folder + "app-a.b.service"), "a.b");
  EXPECT_EQ(applicationOfService(folder + "dbus.service"), std::nullopt);
}

TEST(ControlGroup, NamesSurviveTheirEscapes) {
  for (const std::string name :
       {"com.example.app", "with-dash and blank", ".hidden", "a\\x2db", "\xc3\xa9\xff/\n"}) {
    const std::string scope = applicationScopeName(name, 42);
    EXPECT_EQ(applicationOfScope("/app.slice/" + scope, 42), name) << scope;
  }
}

}  // namespace
}  // namespace velum::test
