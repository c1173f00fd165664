#include "vpn_relauncher/Locations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/Handlers/OSLogHandler.h"
#include "Velum/Logger/Logger.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Environment.h"
#include "tests/support/TemporaryFolder.h"
#include "vpn_relauncher/LastErrorLogHandler.h"
#include "vpn_relauncher/LogConfig.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class FakeDirectories final : public Directories {
 public:
  std::optional<std::string> groupContainer(const std::string& groupIdentifier) override {
    ++lookups;
    EXPECT_EQ(groupIdentifier, "R8K2ZP5WQN.com.quillon.mac");
    return group;
  }
  std::optional<std::string> localLibrary() override { return library; }
  std::optional<std::string> runtime() override { return std::nullopt; }

  std::optional<std::string> group;
  std::optional<std::string> library;
  std::atomic<int> lookups = 0;
};

class LocationsTest : public testing::Test {
 protected:
  test::CapturedLog log;
  test::TemporaryFolder folder;
  FakeDirectories directories;
  Locations locations{directories};
};

TEST_F(LocationsTest, CreatesTheFoldersOfBothLogs) {
  directories.group = folder / "a/group";
  directories.library = folder / "Library";
  EXPECT_EQ(locations.groupLogFilePath(),
            folder / "a/group/Library/Logs/com.quillon.mac.vpn/Quillon VPN-group.log");
  EXPECT_EQ(locations.sharedLogFilePath(),
            folder / "Library/Logs/com.quillon.mac.vpn/Quillon VPN-shared.log");
  EXPECT_EQ(locations.appGroupDirectory(), directories.group);
  EXPECT_TRUE(fs::is_directory(*locations.groupLogsDirectory()));
  EXPECT_EQ(fs::status(*locations.sharedLogsDirectory()).permissions(), fs::perms(0755));
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(LocationsTest, GivesTheSharedFolderItsPermissionsOnlyWhenItIsNew) {
  directories.library = folder.path();
  const mode_t mask = ::umask(0077);
  const auto created = locations.sharedLogsDirectory();
  ::umask(mask);
  EXPECT_EQ(fs::status(*created).permissions(), fs::perms(0755));
  fs::permissions(*created, fs::perms(0700));
  Locations again{directories};
  EXPECT_EQ(again.sharedLogsDirectory(), created);
  EXPECT_EQ(fs::status(*created).permissions(), fs::perms(0700));
}

TEST_F(LocationsTest, SaysOnceWhatIsMissing) {
  EXPECT_EQ(locations.groupLogFilePath(), "");
  EXPECT_EQ(locations.groupLogsDirectory(), std::nullopt);
  EXPECT_EQ(locations.sharedLogFilePath(), "");  // without a message
  EXPECT_THAT(log.texts(), ElementsAre("E: (Locations: appGroupDirectory) "
                                       "Failed to get app group directory",
                                       "E: (Locations: groupLogsDirectory) "
                                       "Failed to get group logs directory"));
}

TEST_F(LocationsTest, SaysWhyAFolderCannotBeCreated) {
  test::writeFile(folder / "file", "");
  directories.library = folder / "file";
  EXPECT_EQ(locations.sharedLogFilePath(), "");
  EXPECT_THAT(log.texts(), ElementsAre("E: (Locations: create(url:title:attr:)) "
                                       "Cannot create Shared Logs directory (" +
                                       (folder / "file/Logs/com.quillon.mac.vpn") +
                                       ") with error: Not a directory"));
}

TEST_F(LocationsTest, LooksEachFolderUpOnce) {
  directories.group = folder / "group";
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([this] { EXPECT_NE(locations.groupLogFilePath(), ""); });
  }
  for (auto& thread : threads) thread.join();
  directories.group.reset();  // what is known stays
  EXPECT_EQ(locations.appGroupDirectory(), folder / "group");
  EXPECT_EQ(directories.lookups, 1);
}

TEST_F(LocationsTest, LogSetUpChoosesTheFileBySubsystem) {
  directories.group = folder / "group";
  directories.library = folder / "Library";
  const auto recordOf = [this](const std::string& subsystem) {
    Logger logger;
    LogConfig::setUp(subsystem, logger, locations);
    const auto handlers = logger.handlers();
    EXPECT_EQ(handlers.size(), 2U);
    EXPECT_NE(dynamic_cast<FileLogHandler*>(handlers.at(0).get()), nullptr);
    EXPECT_NE(dynamic_cast<OSLogHandler*>(handlers.at(1).get()), nullptr);
    EXPECT_EQ(logger.logLevel(), LogLevel::info);
    handlers.at(0)->logWithLevel(LogLevel::info, LogDate(), "record of " + subsystem + '.');
    return "record of " + subsystem + '.';
  };
  const std::string agent = recordOf("com.quillon.mac.vpn.tunnel_agent");
  const std::string other = recordOf("com.quillon.mac.vpn.Tunnel_agent");
  const std::string helper = recordOf("com.quillon.mac.vpn.vpn_relauncher");
  const std::string group = test::readFile(locations.groupLogFilePath());
  const std::string shared = test::readFile(locations.sharedLogFilePath());
  EXPECT_THAT(shared, testing::HasSubstr(agent));
  EXPECT_THAT(shared, testing::Not(testing::HasSubstr(helper)));
  EXPECT_THAT(group, testing::HasSubstr(other));
  EXPECT_THAT(group, testing::HasSubstr(helper));
  EXPECT_THAT(group, testing::Not(testing::HasSubstr(agent)));
}

TEST_F(LocationsTest, LastErrorIsKeptInTheDefaults) {
  const test::ScopedVariable configuration("XDG_CONFIG_HOME", folder.path());
  const auto defaults = UserDefaults::domain("com.example");
  LastErrorLogHandler handler(*defaults);
  const auto lastError = [&]() -> std::string {
    const auto value = defaults->object("LastError");
    return value ? *value->get<std::string>() : "";
  };
  handler.logWithLevel(LogLevel::warning, LogDate(), "W tag: ignored");
  EXPECT_EQ(lastError(), "");
  handler.logWithLevel(LogLevel::error, LogDate(), "E tag: first");
  handler.logWithLevel(LogLevel::error, LogDate(), "E tag: second \xFF");
  handler.logWithLevel(LogLevel::info, LogDate(), "I tag: ignored");
  EXPECT_EQ(lastError(), "E tag: second \xEF\xBF\xBD");
}

}  // namespace
}  // namespace velum
