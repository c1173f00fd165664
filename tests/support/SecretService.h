#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Spawn.h"
#include "tests/support/Environment.h"
#include "tests/support/Processes.h"
#include "tests/support/SecretEnvironment.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Waiting.h"

namespace velum::test {

/// A program that ends with the test, also when the test is killed.
class Daemon {
 public:
  /// `input` is what it reads from its standard input, `output` where its standard output goes.
  explicit Daemon(const std::vector<std::string>& arguments, const std::string& input = "",
                  int output = SpawnOptions::nullDevice,
                  const std::vector<std::string>& environment = environmentWithout({})) {
    Pipe pipe;
    EXPECT_EQ(::write(pipe.writer.get(), input.data(), input.size()),
              static_cast<ssize_t>(input.size()));
    pipe.writer.reset();
    SpawnOptions options;
    options.executable.assign("/usr/bin/setpriv");
    options.arguments = {"setpriv", "--pdeathsig", "KILL", "--"};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.environment = environment;
    options.standardStreams = {pipe.reader.get(), output, SpawnOptions::nullDevice};
    pid_ = spawn(options);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() { kill(); }

  pid_t pid() const { return pid_; }
  void signal(int number) const { ::kill(pid_, number); }
  /// Ends it as no program can prevent.
  void kill() {
    if (pid_ <= 0) return;
    signal(SIGKILL);
    retryInterrupted([&] { return ::waitpid(pid_, nullptr, 0); });
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

struct BusCloser {
  void operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
};
using BusPointer = std::unique_ptr<sd_bus, BusCloser>;

/// A message bus of the test's own. It starts no services but those in `servicesFolder`.
class PrivateBus {
 public:
  explicit PrivateBus(std::string folder) : folder_(std::move(folder)) {
    writeFile(folder_ + "/bus.conf", R"(<busconfig><type>session</type>
<listen>unix:path=)" + socket() + R"(</listen>
<servicedir>)" + servicesFolder() +
                                         R"(</servicedir>
<auth>EXTERNAL</auth>
<policy context="default">
<allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/>
</policy></busconfig>)");
    std::filesystem::create_directories(servicesFolder());
    Pipe ready;
    daemon_ = std::make_unique<Daemon>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                                 "--config-file", folder_ + "/bus.conf"},
        "", ready.writer.get());
    ready.writer.reset();
    EXPECT_TRUE(isReadable(ready.reader.get())) << "no bus";
  }

  std::string socket() const { return folder_ + "/bus"; }
  std::string address() const { return "unix:path=" + socket(); }
  std::string servicesFolder() const { return folder_ + "/services"; }
  Daemon& daemon() { return *daemon_; }

  /// Waits until somebody on the bus has the name; false when nobody had it in time.
  bool waitForName(const char* name) const {
    const BusPointer owner = connect();
    sd_bus* const bus = owner.get();
    bool isThere = false;
    const std::string rule =
        "type='signal',member='NameOwnerChanged',arg0='" + std::string(name) + "'";
    const auto note = [](sd_bus_message*, void* flag, sd_bus_error*) {
      *static_cast<bool*>(flag) = true;
      return 0;
    };
    sd_bus_add_match(bus, nullptr, rule.c_str(), note, &isThere);
    const char* const service = "org.freedesktop.DBus";
    if (sd_bus_call_method(bus, service, "/org/freedesktop/DBus", service, "GetNameOwner", nullptr,
                           nullptr, "s", name) >= 0) {
      return true;
    }
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!isThere && std::chrono::steady_clock::now() < end) {
      if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, 1'000'000);
    }
    return isThere;
  }

  /// Makes it look for services again.
  void reload() const {
    const BusPointer bus = connect();
    const char* const service = "org.freedesktop.DBus";
    EXPECT_GE(sd_bus_call_method(bus.get(), service, "/org/freedesktop/DBus", service,
                                 "ReloadConfig", nullptr, nullptr, nullptr),
              0);
  }

  /// A connection for the test's own conversations, or for seeing all that is said on the bus.
  enum class Role : std::uint8_t { client, monitor };
  BusPointer connect(Role role = Role::client) const {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    BusPointer owner(bus);
    sd_bus_set_address(bus, address().c_str());
    sd_bus_set_bus_client(bus, 1);
    sd_bus_set_monitor(bus, role == Role::monitor ? 1 : 0);
    EXPECT_GE(sd_bus_start(bus), 0);
    const char* const service = "org.freedesktop.DBus";
    EXPECT_TRUE(role == Role::client ||
                sd_bus_call_method(bus, service, "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus.Monitoring", "BecomeMonitor", nullptr,
                                   nullptr, "asu", 0, 0) >= 0);
    return owner;
  }

 private:
  std::string folder_;
  std::unique_ptr<Daemon> daemon_;
};

/// The same with a private bus and, once started, a real Secret Service, unlocked and empty:
/// secrets go there.
class SecretServiceEnvironment : public SecretEnvironment {
 public:
  enum class Start : std::uint8_t { now, later };
  enum class Login : std::uint8_t { opensKeyring, leavesKeyring };

  explicit SecretServiceEnvironment(Start start = Start::now) {
    if (start == Start::now) this->start();
  }

  /// Starts the service, with the keyrings it had when it was ended: unlocked, the login's made
  /// where it is missing, or as they lie in the folder.
  void start(Login login = Login::opensKeyring) {
    std::vector<std::string> environment = environmentWithout({"XDG_RUNTIME_DIR", "XDG_DATA_HOME"});
    environment.push_back("XDG_RUNTIME_DIR=" + folder());
    environment.push_back("XDG_DATA_HOME=" + keyrings());
    std::vector<std::string> command{"gnome-keyring-daemon", "--components=secrets",
                                     "--foreground"};
    if (login == Login::opensKeyring) command.emplace_back("--unlock");
    service_ =
        std::make_unique<Daemon>(command, "password\n", SpawnOptions::nullDevice, environment);
    ASSERT_TRUE(bus_.waitForName("org.freedesktop.secrets")) << "no Secret Service";
  }

  std::string keyrings() const { return folder() + "/keyrings"; }
  Daemon& service() { return *service_; }
  PrivateBus& bus() { return bus_; }

  /// Locks the default collection.
  void lock() const {
    const BusPointer bus = bus_.connect();
    EXPECT_GE(sd_bus_call_method(bus.get(), "org.freedesktop.secrets", "/org/freedesktop/secrets",
                                 "org.freedesktop.Secret.Service", "Lock", nullptr, nullptr, "ao",
                                 1, "/org/freedesktop/secrets/collection/login"),
              0);
  }

 private:
  PrivateBus bus_{folder()};
  ScopedVariable address_{"DBUS_SESSION_BUS_ADDRESS", bus_.address()};
  std::unique_ptr<Daemon> service_;
};

}  // namespace velum::test
