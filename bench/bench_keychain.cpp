// What a look-up in the session's Secret Service costs, against libsecret's own.

#include <fmt/format.h>
#include <libsecret/secret.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "Velum/KeyChain.h"
#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

constexpr int rounds = 101;
constexpr int lookupsPerRound = 20;
constexpr const char* serviceName = "com.example.vpn";

const SecretSchema schema{"com.example.Bench",
                          SECRET_SCHEMA_NONE,
                          {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                           {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                           {"accessGroup", SECRET_SCHEMA_ATTRIBUTE_STRING}},
                          0,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr};

struct Unref {
  void operator()(SecretService* service) const noexcept { g_object_unref(service); }
  void operator()(SecretValue* value) const noexcept { secret_value_unref(value); }
};

// A bus and a keyring of the benchmark's own, unlocked and empty.
class Session {
 public:
  explicit Session(const bench::TemporaryFolder& folder)
      : bus_(shell(fmt::format(
            R"(printf '<busconfig><type>session</type><listen>unix:path={0}/bus</listen>)"
            R"(<auth>EXTERNAL</auth><policy context="default"><allow send_destination="*"/>)"
            R"(<allow receive_sender="*"/><allow own="*"/></policy></busconfig>' > {0}/bus.conf; )"
            R"(exec dbus-daemon --nofork --nopidfile --config-file {0}/bus.conf)",
            folder.path()))) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (folder / "bus")).c_str(), 1);
    waitFor("the bus", [&] { return std::filesystem::exists(folder / "bus"); });
    keyring_ = std::make_unique<bench::Process>(
        shell("exec gnome-keyring-daemon --unlock --components=secrets --foreground <<END\n"
              "password\nEND"));
    waitFor("the Secret Service", [&] {
      service_.reset(secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, nullptr));
      return service_ != nullptr;
    });
    // The bus ends before this process does.
    g_dbus_connection_set_exit_on_close(g_dbus_proxy_get_connection(G_DBUS_PROXY(service_.get())),
                                        FALSE);
  }

 private:
  static std::vector<std::string> shell(const std::string& script) {
    return {"/bin/sh", "-c", script};
  }

  template <class Condition>
  static void waitFor(const std::string& what, Condition condition) {
    for (int attempt = 0; !condition(); ++attempt) {
      if (attempt == 1000) throw std::runtime_error(what + " does not start");
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  bench::Process bus_;
  std::unique_ptr<bench::Process> keyring_;
  std::unique_ptr<SecretService, Unref> service_;  // kept, so that its session is
};

void require(bool isRight, const char* what) {
  if (!isRight) throw std::runtime_error(what);
}

void measure(const std::string& size, const std::string& value) {
  require(
      velum::KeyChain::save(size, velum::secretBytes(value), serviceName) == velum::errSecSuccess,
      "KeyChain::save");
  require(secret_password_store_sync(&schema, SECRET_COLLECTION_DEFAULT, "bench", value.c_str(),
                                     nullptr, nullptr, "service", serviceName, "account",
                                     size.c_str(), "accessGroup", "", nullptr) != FALSE,
          "secret_password_store_sync");

  const bench::Run ours = [&] {
    return bench::timed([&] {
      for (int count = 0; count < lookupsPerRound; ++count) {
        const auto found = velum::KeyChain::load(size, serviceName);
        require(found && found->size() == value.size(), "KeyChain::load");
      }
    });
  };
  const bench::Run theirs = [&] {
    return bench::timed([&] {
      for (int count = 0; count < lookupsPerRound; ++count) {
        const std::unique_ptr<SecretValue, Unref> found(secret_password_lookup_binary_sync(
            &schema, nullptr, nullptr, "service", serviceName, "account", size.c_str(),
            "accessGroup", "", nullptr));
        gsize length = 0;
        if (found) secret_value_get(found.get(), &length);
        require(length == value.size(), "secret_password_lookup_binary_sync");
      }
    });
  };
  const auto times = bench::interleaved(rounds, {ours, theirs});
  bench::report("KeyChain::load of " + size, times[0], "secret_password_lookup_binary_sync",
                times[1], {1.1}, lookupsPerRound);
}

}  // namespace

int main() {
  try {
    const bench::TemporaryFolder folder;
    bench::isolateEnvironment(folder.path());
    std::filesystem::permissions(folder.path(), std::filesystem::perms::owner_all);
    const Session session(folder);
    measure("32 B", std::string(32, 's'));
    measure("4 KiB", std::string(4096, 's'));
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "bench_keychain: %s\n", error.what()));
    return 1;
  }
}
