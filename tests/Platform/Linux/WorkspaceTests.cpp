#include "Velum/Platform/Workspace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>

#include "Velum/Platform/Linux/Processes/ProcessStatus.h"
#include "Velum/Platform/Linux/Workspace/WorkspaceLinux.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/MainThread.h"
#include "tests/support/Processes.h"
#include "tests/support/SampleBundle.h"
#include "tests/support/SecretService.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

constexpr std::string_view keyPath = Workspace::runningApplicationsKeyPath;

/// Takes every process for the one that is meant, also one that a test just started.
WorkspaceLinux& workspace() {
  static WorkspaceLinux& instance = *new WorkspaceLinux(UINT64_MAX);  // NOLINT: as the real one
  return instance;
}

std::vector<pid_t> listedIds() {
  std::vector<pid_t> ids;
  for (const auto& application : workspace().runningApplications()) {
    ids.push_back(application.processIdentifier());
  }
  return ids;
}

std::optional<std::string> identifierOf(pid_t pid) {
  for (const auto& application : workspace().runningApplications()) {
    if (application.processIdentifier() == pid) return application.bundleIdentifier();
  }
  return std::nullopt;
}

class Observer final : public WorkspaceObserver {
 public:
  explicit Observer(std::function<void()> changed = [] {}) : changed_(std::move(changed)) {}
  void observeValue(std::optional<std::string_view> changedPath) override {
    EXPECT_EQ(changedPath, keyPath);
    changed_();
    told_.set_value();
  }
  bool isTold() { return told_.get_future().wait_for(deadline) == std::future_status::ready; }

 private:
  std::function<void()> changed_;
  std::promise<void> told_;
};

/// A copy of the sample bundle, in an environment of its own.
class WorkspaceTest : public ::testing::Test {
 protected:
  WorkspaceTest() {
    ::setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1);
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    ::setenv("SAMPLE_APP_EVENTS", (folder_ / "events").c_str(), 1);
    copySampleBundle(VELUM_SAMPLE_BUNDLE, bundle_, identifier_);
  }

  std::string program() const { return bundle_ + "/Contents/MacOS/sample_app"; }

  /// The answer to openApplication: nothing, or the error.
  static std::future<std::optional<std::string>> open(const std::string& path,
                                                      OpenConfiguration configuration = {},
                                                      Workspace& opener = workspace()) {
    auto answer = std::make_shared<std::promise<std::optional<std::string>>>();
    onMain([&] {
      opener.openApplication(path, configuration,
                             [answer](const auto& error) { answer->set_value(error); });
    });
    return answer->get_future();
  }

  TemporaryFolder folder_;
  std::string bundle_ = folder_ / "Sample VPN.app";
  std::string identifier_ = ownIdentifier(folder_);
  LineReader events_{folder_ / "events"};
  Family family_;
};

TEST_F(WorkspaceTest, TakesALaterProcessWithTheNumberForAnother) {
  const pid_t process = startShell("exec sleep 1000");
  const std::uint64_t start = ProcessStatus::of(process)->startTime;
  static WorkspaceLinux& younger = *new WorkspaceLinux(start);    // NOLINT: as the real one
  static WorkspaceLinux& older = *new WorkspaceLinux(start - 1);  // NOLINT: as the real one
  Observer observer;
  onMain([&] { older.addObserver(observer, keyPath, process); });
  EXPECT_TRUE(observer.isTold());
  Observer none([] { FAIL() << "it lives"; });
  onMain([&] {
    for (const auto& application : older.runningApplications()) {
      EXPECT_NE(application.processIdentifier(), process);
    }
    older.removeObserver(observer, keyPath);
    younger.addObserver(none, keyPath, process);
    younger.removeObserver(none, keyPath);
  });
}

TEST_F(WorkspaceTest, ObserversMayLeaveInsideTheirCall) {
  const pid_t process = startShell("exec sleep 1000");
  Observer second;
  Observer first([&] {
    workspace().removeObserver(first, keyPath);
    workspace().addObserver(second, keyPath, process);
  });
  onMain([&] { workspace().addObserver(first, keyPath, process); });
  ::kill(process, SIGKILL);
  EXPECT_TRUE(first.isTold());
  EXPECT_TRUE(second.isTold());
  onMain([&] { workspace().removeObserver(second, keyPath); });
}

TEST_F(WorkspaceTest, CountsNoApplicationOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "nobody else sees into the processes of others";
  std::filesystem::permissions(folder_.path(), std::filesystem::perms::all);
  std::filesystem::permissions(folder_ / "events", std::filesystem::perms::all);
  const pid_t application = ::fork();
  if (application == 0) {
    if (::setresuid(65534, 65534, 65534) == 0) {
      ::execl(program().c_str(), program().c_str(), nullptr);
    }
    ::_exit(1);
  }
  ASSERT_TRUE(events_.next());
  EXPECT_THAT(onMain(listedIds), Contains(application));
  EXPECT_EQ(onMain([&] { return identifierOf(application); }), std::nullopt);
}

TEST_F(WorkspaceTest, TakesNoCopyOfAnApplicationForIt) {
  // This very test is the main program of a bundle, and leaves a forked copy behind.
  std::filesystem::remove(program());
  std::filesystem::copy("/proc/self/exe", program());
  Pipe pipe;
  SpawnOptions options;
  options.executable = program();
  options.arguments = {program(), "--gtest_filter=*LeavesACopyBehind",
                       "--gtest_also_run_disabled_tests"};
  options.extraDescriptor = pipe.writer.get();
  const pid_t application = spawn(options);
  pid_t copy = 0;
  ASSERT_TRUE(isReadable(pipe.reader.get()));
  ASSERT_EQ(::read(pipe.reader.get(), &copy, sizeof copy), ssize_t{sizeof copy});
  EXPECT_EQ(onMain([&] { return identifierOf(application); }), identifier_);
  EXPECT_EQ(onMain([&] { return identifierOf(copy); }), std::nullopt);
}

TEST(DISABLED_WorkspaceHelper, LeavesACopyBehind) {
  const pid_t copy = ::fork();
  if (copy > 0) {
    ASSERT_EQ(::write(3, &copy, sizeof copy), ssize_t{sizeof copy});
  }
  ::pause();
}

TEST_F(WorkspaceTest, OpensOneInstanceForManyAskers) {
  auto first = open(bundle_);
  auto second = open(bundle_);
  std::filesystem::create_directory_symlink(bundle_, folder_ / "link.app");
  auto third = open(folder_ / "link.app");
  EXPECT_EQ(first.get(), std::nullopt);
  EXPECT_EQ(second.get(), std::nullopt);
  std::filesystem::copy(bundle_, folder_ / "Copy.app", std::filesystem::copy_options::recursive);
  auto fourth = open(folder_ / "Copy.app");  // the same application at another place
  EXPECT_EQ(third.get(), std::nullopt);
  EXPECT_EQ(fourth.get(), std::nullopt);
  EXPECT_TRUE(events_.next());
  EXPECT_EQ(events_.next(std::chrono::milliseconds(0)), std::nullopt) << "opened twice";
  // An opener that hangs, which keeps the lock, is waited for only so long.
  static WorkspaceLinux& impatient =
      *new WorkspaceLinux(UINT64_MAX, std::chrono::nanoseconds(1));  // NOLINT: as the real one
  const std::filesystem::directory_iterator lockFile(folder_ / "velum");
  const UniqueFd lock(::open(lockFile->path().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
  EXPECT_EQ(open(bundle_, {}, impatient).get(), std::nullopt);
  EXPECT_EQ(events_.next(std::chrono::milliseconds(0)), std::nullopt) << "opened twice";
  EXPECT_EQ(open(bundle_, {.createsNewApplicationInstance = true}, impatient).get(), std::nullopt);
  EXPECT_TRUE(events_.next());
}

TEST_F(WorkspaceTest, KnowsAScriptByTheRecordOfItsLaunch) {
  std::filesystem::remove(program());
  writeFile(program(), "#!/bin/sh\necho $$ >> \"$SAMPLE_APP_EVENTS\"\nsleep 1000\n");
  std::filesystem::permissions(program(), std::filesystem::perms::owner_all);
  EXPECT_EQ(open(bundle_).get(), std::nullopt);
  const pid_t script = std::stoi(events_.next().value_or(std::to_string(noProcess)));
  EXPECT_EQ(onMain([&] { return identifierOf(script); }), identifier_);
  EXPECT_EQ(open(bundle_).get(), std::nullopt);
  EXPECT_EQ(events_.next(std::chrono::milliseconds(0)), std::nullopt) << "opened twice";
  ::kill(script, SIGKILL);
  ASSERT_TRUE(hasEnded(script));
  EXPECT_EQ(open(bundle_).get(), std::nullopt);
  EXPECT_TRUE(events_.next());
}

TEST_F(WorkspaceTest, SaysWhyAnApplicationDidNotOpen) {
  const auto errorOf = [](const std::string& path) { return open(path).get().value_or(""); };
  EXPECT_EQ(errorOf(folder_ / "Missing.app"),
            (folder_ / "Missing.app") + ": No such file or directory");
  EXPECT_THAT(errorOf(folder_.path()), HasSubstr(folder_.path() + ": is not an application"));
  EXPECT_THAT(errorOf("/dev/null"), HasSubstr("/dev/null: is not an application"));
  writeFile(folder_ / "a.desktop", "[Desktop Entry]\nExec=/bin/true\nTerminal=true\n");
  EXPECT_THAT(errorOf(folder_ / "a.desktop"), HasSubstr("Terminal=true"));
  writeFile(folder_ / "a.desktop", "[Desktop Entry]\nExec=/bin/true\nPath=/nowhere\n");
  EXPECT_EQ(errorOf(folder_ / "a.desktop"), "/nowhere: No such file or directory");
  ::setenv("SAMPLE_APP_EXIT", "3", 1);
  EXPECT_THAT(errorOf(bundle_), HasSubstr("sample_app ended with status 3"));
  ::setenv("SAMPLE_APP_EXIT", "0", 1);
  EXPECT_EQ(errorOf(bundle_), "") << "a launcher that hands over is a success";
  ::unsetenv("SAMPLE_APP_EXIT");
  ::setenv("SAMPLE_APP_SIGNAL", "11", 1);
  EXPECT_THAT(errorOf(bundle_), HasSubstr("was ended by signal 11 (Segmentation fault)"));
  std::filesystem::permissions(program(), std::filesystem::perms::owner_read);
  EXPECT_EQ(errorOf(bundle_), program() + ": Permission denied");
  std::filesystem::remove(program());
  writeFile(program(), "#!/nowhere/interpreter\n");
  std::filesystem::permissions(program(), std::filesystem::perms::owner_all);
  EXPECT_EQ(errorOf(bundle_), program() + ": No such file or directory");
  EXPECT_THAT(Family::children(), ::testing::IsEmpty());
}

/// A bus of its own, perhaps.
class FileViewer : public ::testing::Test {
 protected:
  TemporaryFolder folder_;
  ScopedVariable address_{"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (folder_ / "bus")};
  CapturedLog log_;
};

TEST_F(FileViewer, IsToldTheUriOfAFile) {
  const PrivateBus bus(folder_.path());
  const BusPointer fileManager = bus.connect();
  EXPECT_GE(sd_bus_request_name(fileManager.get(), "org.freedesktop.FileManager1", 0), 0);
  std::thread asker(
      [this] { Workspace::shared().activateFileViewer({folder_ / "a b\xC3\xA9%#.zip"}); });
  std::string uri;
  EXPECT_TRUE(eventually([&] {
    sd_bus_message* message = nullptr;
    if (sd_bus_process(fileManager.get(), &message) == 0) sd_bus_wait(fileManager.get(), 10'000);
    const char* text = nullptr;
    if (sd_bus_message_is_method_call(message, "org.freedesktop.FileManager1", "ShowItems") > 0 &&
        sd_bus_message_read(message, "as", 1, &text) > 0) {
      uri = text;
      sd_bus_reply_method_return(message, "");
    }
    sd_bus_message_unref(message);
    return !uri.empty();
  }));
  asker.join();
  EXPECT_EQ(uri, "file://" + folder_.path() + "/a%20b%C3%A9%25%23.zip");
  EXPECT_TRUE(log_.texts().empty());
}

TEST_F(FileViewer, MayBeMissing) {
  Workspace::shared().activateFileViewer({folder_ / "a.zip"});
  EXPECT_TRUE(log_.has("E: (Workspace: activateFileViewer) Can't show " + folder_ / "a.zip"));
  const PrivateBus bus(folder_.path());
  Workspace::shared().activateFileViewer({folder_ / "a.zip"});
  EXPECT_TRUE(log_.has("org.freedesktop.FileManager1"));
}

}  // namespace
}  // namespace velum::test
