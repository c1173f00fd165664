#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Velum/AES.h"
#include "Velum/Base/LazyValue.h"
#include "Velum/DirectoryMonitor.h"
#include "Velum/HTTP/MultipartBody.h"
#include "Velum/IPCDarwinMessage.h"
#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/CertificateStore.h"
#include "Velum/Sealing/SealedBox.h"
#include "Velum/SecureDefaults.h"
#include "Velum/SecureStorage.h"
#include "Velum/SystemInfo.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Exchanges.h"
#include "tests/support/HttpServer.h"
#include "tests/support/Inspection.h"
#include "tests/support/PatientSecretStore.h"
#include "tests/support/SecretEnvironment.h"
#include "tests/support/Waiting.h"

namespace velum::test {
namespace {

/// Uses a service once, from any thread; false when it failed.
using Use = std::function<bool()>;

void pauseAtRandom() {
  static std::mt19937 random{std::random_device{}()};
  std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
}

/// Runs `body` in a process of its own beside threads that use a service for ever. `make` is called
/// there.
void besideUsers(const std::function<Use()>& make, const std::function<void(const Use&)>& body) {
  inChild([&] {
    // An application's own end takes a moment, and comes after that of what was begun later.
    static_cast<void>(
        std::atexit([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }));
    // Left to the process's end, as an application's are.
    auto* const use = new Use(make());  // NOLINT(*-owning-memory)
    ASSERT_TRUE((*use)());
    for (int i = 0; i < 8; ++i) {
      std::thread([use] {
        while ((*use)()) continue;
      }).detach();
    }
    body(*use);
  });
}

const SecretBytes& key() {
  static const SecretBytes& bytes =
      *new SecretBytes(SealedBox::keySize, 7);  // NOLINT: threads use it while the process exits
  return bytes;
}

class FixedKey final : public KeyChainDataProtocol {
 public:
  SecretResult read() override { return {.status = errSecSuccess, .data = key()}; }
  bool store(const std::optional<SecretBytes>& /*value*/) override { return true; }
};

/// What the services need: folders of the test's own, and a server.
class Surroundings {
 public:
  std::string operator/(const std::string& name) const { return secrets_.folder() + '/' + name; }
  const HttpServer& server() {
    if (!server_) {
      server_ = std::make_unique<HttpServer>(HttpServer::Tls::yes);
      ::setenv("SSL_CERT_FILE", server_->certificate().c_str(), 1);
    }
    return *server_;
  }

 private:
  SecretEnvironment secrets_;
  ScopedVariable configuration_{"XDG_CONFIG_HOME", secrets_.folder() + "/config"};
  ScopedVariable authority_{"SSL_CERT_FILE", std::nullopt};
  std::unique_ptr<HttpServer> server_;
};

struct Service {
  const char* name;
  std::function<Use(Surroundings&)> make;

  friend void PrintTo(const Service& service, std::ostream* out) { *out << service.name; }
};

std::string ownName() {
  static std::atomic<int> count{0};
  return "n" + std::to_string(::getpid()) + '.' + std::to_string(count++ % 4);
}

bool isOk(const std::shared_ptr<SecureDefaults>& defaults) {
  const std::string name = ownName();
  return defaults->setString("value", name) && defaults->string(name) == "value";
}

/// A body whose owner's code logs.
class LoggingBody final : public BodySource {
 public:
  std::int64_t size() const noexcept override { return 100'000; }
  std::unique_ptr<BodyStream> open() const override { return std::make_unique<Stream>(); }

 private:
  class Stream final : public BodyStream {
   public:
    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() override { logInfo({"body"}, "is over"); }
    std::size_t read(char* buffer, std::size_t size) override {
      logInfo({"body"}, "is read");
      std::fill_n(buffer, std::min<std::size_t>(size, 30'000), 'b');
      return std::min<std::size_t>(size, 30'000);
    }
  };
};

Use exchange(std::string url, bool hasBody = false) {
  return [url = std::move(url), hasBody] {
    URLRequest request{.url = url};
    request.headers.add("Connection", "close");  // what is new is the hardest
    if (hasBody) {
      request.method = "POST";
      request.bodyStream = std::make_shared<LoggingBody>();
    }
    return exchanged(std::move(request)).status() == 200;
  };
}

// NOLINTNEXTLINE(cert-err58-cpp): a test's table
const std::vector<Service> services{
    {"Logger", [](Surroundings&) -> Use { return [] { return logInfo({"f"}, "text"), true; }; }},
    {"UserDefaults",
     [](Surroundings&) -> Use {
       return [domain = std::shared_ptr(UserDefaults::domain("com.example"))] {
         return domain->setObject(ownName(), PropertyList(std::string("value")));
       };
     }},
    {"GuardedSettings",
     [](Surroundings& place) -> Use {
       auto copy = std::make_shared<SecureStorage>(std::make_shared<FixedKey>(), place / "copy", 0);
       auto defaults = std::make_shared<SecureDefaults>("com.example.guarded", std::move(copy));
       return [defaults] { return isOk(defaults); };
     }},
    {"KeyChain",
     [](Surroundings&) -> Use {
       return [store = patientSecretStore()] {
         const SecretQuery query{.service = "test", .account = ownName(), .accessGroup = {}};
         store->add(query, key());
         return store->copyMatching(query).data == key() && store->update(query, key()) == 0;
       };
     }},
    {"Certificates",
     [](Surroundings& place) -> Use {
       const std::string database = place / ".pki/nssdb";
       if (std::filesystem::create_directories(database)) {
         EXPECT_EQ(exitStatus(startShell("exec certutil -N --empty-password -d 'sql:" + database +
                                         "' </dev/null")),
                   0);
       }
       return [&store = CertificateStore::shared()] {
         const auto keychains = store.searchList(SecPreferencesDomain::user).keychains;
         // Its locks are not fair: with so many users, one may find it busy for seconds.
         return !keychains.empty() &&
                eventually([&] { return store.list(keychains.front()).status.isSuccess(); });
       };
     }},
    {"Messages",
     [](Surroundings&) -> Use {
       IPCDarwinMessageConfig::install({.prefix = "com.example"});
       const std::string name(300, 'n');  // stands in the file system as a hash
       return [name] {
         IPCDarwinMessage::addListener("message", [] {});
         return IPCDarwinMessage::sendResponse(name, "id"), true;
       };
     }},
    {"Http", [](Surroundings& place) { return exchange(place.server().url("/echo")); }},
    {"HttpBody", [](Surroundings& place) { return exchange(place.server().url("/echo"), true); }},
    {"Https", [](Surroundings& place) { return exchange(place.server().tlsUrl("/echo")); }},
    {"Dispatch",
     [](Surroundings&) -> Use {
       return [] {
         auto done = std::make_shared<std::promise<void>>();
         DispatchQueue::serial("test")->async([done] { done->set_value(); });
         return done->get_future().wait_for(deadline) == std::future_status::ready;
       };
     }},
    {"DirectoryMonitor",
     [](Surroundings& place) -> Use {
       return [path = place / ""] { return DirectoryMonitor::create(path)->startMonitoring(); };
     }},
    {"SystemInfo",
     [](Surroundings&) -> Use { return [] { return !SystemInfo::getOSVersion().empty(); }; }},
};

class ForkAndExit : public testing::TestWithParam<Service> {
 protected:
  Use make() {
    Logger::shared().setHandlers({FileLogHandler::create("test", place_ / "test.log", true)});
    return GetParam().make(place_);
  }
  void SetUp() override {
    if (std::string_view(GetParam().name).starts_with("Http")) place_.server();
  }

 private:
  Surroundings place_;
};

TEST_P(ForkAndExit, AChildForkedInTheMiddleUsesTheServiceAnewWithoutTheParentsDescriptors) {
#ifdef VELUM_SANITIZED
  GTEST_SKIP() << "a sanitizer's own memory and threads do not bear a fork in the middle";
#endif
  const auto before = descriptorsNotToShare();
  besideUsers([this] { return make(); },
              [&before](const Use& use) {
                for (int round = 0; round < 12; ++round) {
                  pauseAtRandom();
                  inChild([&] {
                    EXPECT_EQ(descriptorsNotToShare(), before);
                    EXPECT_TRUE(use());
                  });
                }
                ::_exit(HasFailure() ? 1 : 0);
              });
}

TEST_P(ForkAndExit, AProcessMayExitInTheMiddle) {
  for (int round = 0; round < 8 && !HasFailure(); ++round) {
    besideUsers([this] { return make(); },
                [](const Use&) {
                  pauseAtRandom();
                  std::exit(HasFailure() ? 1 : 0);  // NOLINT(concurrency-mt-unsafe)
                });
  }
}

TEST(Fork, IsToldOnceToWhoeverCameAgain) {
  class Participant final : public ForkParticipant {
   public:
    Participant() : ForkParticipant(Stage::leaf) {}
    using ForkParticipant::registerForFork;
    using ForkParticipant::unregisterForFork;
    void prepareFork() noexcept override { ASSERT_EQ(++forks, 1); }
    void afterForkInParent() noexcept override {}
    void afterForkInChild() noexcept override {}
    int forks = 0;
  };
  Participant first;
  Participant second;
  first.registerForFork();
  second.registerForFork();
  first.unregisterForFork();
  first.registerForFork();
  inChild([] {});
  first.unregisterForFork();
  second.unregisterForFork();
  EXPECT_EQ(first.forks + second.forks, 2);
}

TEST(Fork, WaitsForNoValueThatTheParentComputes) {
  LazyValue<int> value;
  EXPECT_EQ(value.get([&] {
    inChild([&] { EXPECT_EQ(value.get([] { return 2; }), 2); });
    return 1;
  }),
            1);
}

TEST(Fork, GivesParentAndChildDifferentRandomBytesAndIds) {
  AES aes(ByteView(key()).first(16));
  SealedBox box{ByteView(key())};
  const auto unique = [&] {
    std::vector<std::uint8_t> blob(AES::encryptedSize(1));
    aes.encrypt(byteView("x"), blob);
    std::string record;
    appendRecordPrefix(record, {}, "test");
    return std::vector<std::string>{std::string(blob.begin(), blob.end()), box.seal(byteView("x")),
                                    makeMultipartBoundary(), record};
  };
  unique();  // so that there is something to inherit
  const TemporaryFolder folder;
  inChild([&] {
    int number = 0;
    for (const auto& text : unique()) writeFile(folder / std::to_string(number++), text);
  });
  int number = 0;
  for (const auto& text : unique()) EXPECT_NE(readFile(folder / std::to_string(number++)), text);
  EXPECT_EQ(number, 4);
}

INSTANTIATE_TEST_SUITE_P(Services, ForkAndExit, testing::ValuesIn(services),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace velum::test
