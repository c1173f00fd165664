#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Processes.h"
#include "tests/support/SampleBundle.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {

/// The real helper and a copy of the sample bundle, with folders of the test's own for all that
/// they read and write. What they leave running ends with the test.
class RelaunchTest : public ::testing::Test {
 protected:
  /// A line of the sample application's events.
  struct Event {
    std::string name;
    pid_t pid = noProcess;
    pid_t parent = noProcess;
    pid_t session = noProcess;
  };

  RelaunchTest() { copySampleBundle(VELUM_SAMPLE_BUNDLE, bundle, identifier); }

  std::string program() const { return bundle + "/Contents/MacOS/sample_app"; }

  /// The environment of the application and of the helper.
  std::vector<std::string> environment(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> result =
        environmentWithout({"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR",
                            "DBUS_SESSION_BUS_ADDRESS"});
    for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME"}) {
      result.push_back(name + ('=' + folder.path()));
    }
    result.push_back("XDG_RUNTIME_DIR=" + runtimeFolder);
    result.push_back("SAMPLE_APP_EVENTS=" + (folder / "events"));
    result.insert(result.end(), more.begin(), more.end());
    return result;
  }

  pid_t start(const std::string& executable, const std::vector<std::string>& arguments,
              const std::vector<std::string>& moreEnvironment) const {
    SpawnOptions options;
    options.executable = executable;
    options.arguments = {executable};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.environment = environment(moreEnvironment);
    return spawn(options);
  }

  /// Starts the sample application and waits until it runs.
  pid_t startApplication(const std::vector<std::string>& moreEnvironment = {}) {
    const pid_t pid = start(program(), {}, moreEnvironment);
    EXPECT_EQ(next().pid, pid);
    return pid;
  }

  /// Starts the helper, which writes a byte into the pipe when it watches, and closes it.
  pid_t spawnHelper(const std::string& path, pid_t process, Pipe& ready,
                    const std::vector<std::string>& moreEnvironment = {}) const {
    SpawnOptions options;
    options.executable = helperCommand.front();
    options.arguments = helperCommand;
    options.arguments.push_back(path);
    options.arguments.push_back(std::to_string(process));
    options.environment = environment(moreEnvironment);
    options.environment->push_back("VELUM_READY_FD=3");
    options.extraDescriptor = ready.writer.get();
    options.newSession = true;
    const pid_t helper = spawn(options);
    ready.writer.reset();
    EXPECT_TRUE(isReadable(ready.reader.get())) << "it neither watches nor ends";
    return helper;
  }

  /// Starts the helper and waits until it watches.
  pid_t startHelper(const std::string& path, pid_t process,
                    const std::vector<std::string>& moreEnvironment = {}) const {
    Pipe ready;
    const pid_t helper = spawnHelper(path, process, ready, moreEnvironment);
    char byte = 0;
    EXPECT_EQ(::read(ready.reader.get(), &byte, 1), 1) << "the helper ended before it watched";
    return helper;
  }

  /// Ends the application while a helper watches it, which is to succeed.
  void relaunch(const std::string& path, const std::vector<std::string>& helperEnvironment = {}) {
    const pid_t application = startApplication();
    const pid_t helper = startHelper(path, application, helperEnvironment);
    ::kill(application, SIGKILL);
    EXPECT_EQ(exitStatus(helper), 0) << log();
  }

  /// The next event; one without a name when there is none in time.
  Event next(std::chrono::milliseconds timeout = deadline) {
    std::istringstream line(events.next(timeout).value_or(""));
    Event event;
    long long realtime = 0;
    long long monotonic = 0;
    line >> event.name >> realtime >> monotonic >> event.pid >> event.parent >> event.session;
    return event;
  }
  /// Whether nothing more happened.
  bool isQuiet() { return next(std::chrono::milliseconds(0)).name.empty(); }

  std::string logFile() const {
    return folder /
           "R8K2ZP5WQN.com.quillon.mac/Library/Logs/com.quillon.mac.vpn/"
           "Quillon VPN-group.log";
  }
  /// What the helpers logged into their file.
  std::string log() const {
    std::string text;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
      if (entry.path().extension() == ".log") text += readFile(entry.path());
    }
    return text;
  }
  bool isLogged(std::string_view text) const { return log().find(text) != std::string::npos; }

  /// Puts a shell script in the place of the bundle's program.
  void makeScript(const std::string& script) const {
    std::filesystem::remove(program());
    writeFile(program(), script);
    std::filesystem::permissions(program(), std::filesystem::perms::owner_all);
  }

  /// Starts the helper; its arguments follow.
  std::vector<std::string> helperCommand{VELUM_RELAUNCHER};
  TemporaryFolder folder;
  std::string runtimeFolder = folder.path();
  std::string bundle = folder / "Sample '$(x)' VPN.app";
  std::string identifier = ownIdentifier(folder);
  LineReader events{folder / "events"};
  Family family;
};

}  // namespace velum::test
