#include "Velum/Platform/Directories.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Velum/Platform/Linux/Processes/UserBus.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Environment.h"
#include "tests/support/Inspection.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using test::modeOf;
using test::ScopedVariable;
using test::TemporaryFolder;

TEST(Directories, GroupContainerFollowsTheEnvironment) {
  const ScopedVariable home("HOME", "/home/somebody");
  const ScopedVariable data("XDG_DATA_HOME", "/data");
  const auto container = [] { return Directories::shared().groupContainer("group.id"); };
  EXPECT_EQ(container(), "/data/group.id");
  for (const auto& ignored : {std::optional<std::string>{}, std::optional<std::string>(""),
                              std::optional<std::string>("relative/path")}) {
    const ScopedVariable useless("XDG_DATA_HOME", ignored);
    EXPECT_EQ(container(), "/home/somebody/.local/share/group.id");
    const ScopedVariable none("HOME", std::nullopt);
    const auto found = container();  // in the user database; not every account has an entry
    EXPECT_TRUE(!found || (found->starts_with('/') && found->ends_with("/.local/share/group.id")));
  }
}

TEST(Directories, RefusesGroupsThatLeaveTheDataFolder) {
  for (const char* group : {"", "..", "a/b", "/etc"}) {
    EXPECT_FALSE(Directories::shared().groupContainer(group)) << group;
  }
}

TEST(Directories, RuntimeFolderFallsBackToTheSessionsAndTheTemporaryFolder) {
  const TemporaryFolder folder;
  const ScopedVariable temporary("TMPDIR", folder.path());
  fs::create_directory_symlink(folder.path(), folder / "link");
  test::inChild([&] {
    if (!test::enterPrivateMounts()) return;
    test::mountMemory("/run", "mode=755");
    const ScopedVariable none("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    std::optional<std::string> bus;
    const auto expect = [&](const std::string& expected) {
      for (const auto& useless :
           {std::string(), std::string("run"), folder / "missing", folder / "link"}) {
        const ScopedVariable session("XDG_RUNTIME_DIR", useless);
        EXPECT_EQ(Directories::shared().runtime(), expected) << useless;
        EXPECT_EQ(modeOf(expected), 0700);
        EXPECT_EQ(userBusAddress(), bus) << useless;
      }
    };
    const std::string id = std::to_string(::geteuid());
    expect(folder / ("velum-" + id));
    const std::string session = "/run/user/" + id;
    fs::create_directories(session);
    ASSERT_EQ(::mknod((session + "/bus").c_str(), S_IFSOCK | 0600, 0), 0);
    bus = "unix:path=" + session + "/bus";
    expect(session + "/velum");
  });
}

TEST(Directories, RuntimeFolderIsPrivateAndTrustsNothingThatWasPlanted) {
  const TemporaryFolder folder;
  const ScopedVariable session("XDG_RUNTIME_DIR", folder.path());
  const std::string path = folder / "velum";
  const auto runtime = [] { return Directories::shared().runtime(); };
  for (const char* const state : {"made", "there already"}) {
    EXPECT_EQ(runtime(), path) << state;
    EXPECT_EQ(modeOf(path), 0700);
  }
  fs::permissions(path, fs::perms(0770));
  EXPECT_FALSE(runtime());
  fs::permissions(path, fs::perms::owner_all);
  EXPECT_TRUE(runtime());
  fs::rename(path, folder / "target");
  fs::create_directory_symlink("target", path);
  EXPECT_FALSE(runtime());
  fs::remove(path);
  test::writeFile(path, "");
  EXPECT_FALSE(runtime());
  if (::geteuid() == 0) {  // only root can give a folder away
    fs::remove(path);
    fs::rename(folder / "target", path);
    ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(runtime());
  }
}

}  // namespace
}  // namespace velum
