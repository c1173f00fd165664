// Every system call of what works with other programs and processes fails once, and once the
// process is killed there.

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <regex>
#include <semaphore>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Certificates/CertificateStoreLinux.h"
#include "Velum/Platform/Linux/Notify/NotifyCenterLinux.h"
#include "Velum/Process.h"
#include "Velum/SupportUtils.h"
#include "tests/faults/FaultTest.h"
#include "tests/support/Processes.h"
#include "tests/support/RecordingLogHandler.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestCertificates.h"
#include "tests/support/Waiting.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;

/// Starts what a process has once, and what is no part of an operation.
void warmUp() {
  std::binary_semaphore done{0};
  DispatchQueue::global().asyncAfter(std::chrono::nanoseconds(1), [&] { done.release(); });
  EXPECT_TRUE(done.try_acquire_for(deadline));
}

class OneLog final : public LogManagerProtocol {
 public:
  std::vector<std::string> saveLogs(const LogSubsystemSelector& /*selector*/,
                                    const std::string& folder, const LogSavingOpts& /*opts*/,
                                    const Progress* /*progress*/) override {
    writeFile(folder + "/any.log", "records");
    return {folder + "/any.log"};
  }
};

TEST(Faults, SupportArchive) {
  std::string destination;
  std::string source;
  OneLog log;
  const auto create = [&] {
    std::promise<bool> end;
    const auto progress = SupportUtils::createArchive(
        destination, {{"text", std::string("a text")}, {"file", FileUrl{source}}},
        SupportLogsPurpose::report, std::nullopt, false,
        [&](const std::exception_ptr& error) { end.set_value(error == nullptr); },
        {.logManager = &log});
    auto future = end.get_future();
    const bool isInTime = future.wait_for(deadline) == std::future_status::ready;
    EXPECT_TRUE(isInTime);
    return isInTime && future.get();
  };
  failEveryCall({
      .enter =
          [&](const std::string& folder) {
            fs::create_directories(folder + "/tmp");
            ::setenv("TMPDIR", (folder + "/tmp").c_str(), 1);
            destination = folder + "/archive.zip";
            source = folder + "/source";
            warmUp();
          },
      .prepare =
          [&] {
            writeFile(source, "a file");
            writeFile(destination, "an older archive");
          },
      .run = create,
      .verify =
          [&](Outcome outcome) {
            if (outcome != Outcome::succeeded && readFile(destination) == "an older archive")
              return;
            EXPECT_EQ(shell("unzip -p '" + destination + "'").output, "a texta filerecords");
          },
      .mayHide =
          [](const GatedCall& call) {
            // Without its locale, the tool does not mark names that are not plain ASCII.
            return call.isOneOf(
                       {"flock", "clone_file", "copy_file_range", "stat", "dup", "sendfile"}) ||
                   call.subject.find("/tmp/locale") != std::string::npos ||
                   call.subject.ends_with("/io") ||  // how far it is
                   call.subject.ends_with("/");      // what killed processes left
          },
      // Nothing interrupts the opening of a local folder.
      .mayGiveUp = [](const GatedCall& call) { return call.subject.ends_with("/archive"); },
      .isTidying =
          [](const GatedCall& call) {
            static const std::regex folder(
                ".*/tmp(/archive\\.zip\\.[^/]*(/archive)?|/locale\\.[^/]*)?/?");
            return call.isOneOf({"getdents", "unlink"}) ||
                   (call.isOneOf({"open", "stat"}) && std::regex_match(call.subject, folder));
          },
      .isSpared =
          [](const GatedCall& call) { return call.subject.ends_with("/any.log"); },  // the test's
  });
}

/// A tool run to its end; what it prints is logged.
TEST(Faults, ToolRun) {
  failEveryCall({
      .enter = [](const std::string&) {},
      .run =
          [] {
            const auto log = std::make_shared<RecordingLogHandler>();
            Logger::shared().setHandlers({log});
            const auto tool =
                Process::run("/bin/sh", {.args = {"-c", "echo text; exit 3"}, .wait = true});
            const auto lines = log->texts();
            return tool && tool->termination() == Termination{3, Termination::Reason::exit} &&
                   lines.size() == 3 && lines[1] == "I: (Process) text";
          },
      .verify = [](Outcome) { EXPECT_TRUE(Family::children().empty()); },
  });
}

TEST(Faults, NotificationPost) {
  std::shared_ptr<NotifyCenterLinux> center;
  std::unique_ptr<NotifyCenter::Observer> observer;
  std::counting_semaphore<> told{0};
  failEveryCall({
      .enter =
          [&](const std::string& folder) {
            center = NotifyCenterLinux::make(folder + "/notify", NotifyFolder::Sharing::user);
            observer = center->addObserver("name", [&] { told.release(); });
            // Where no thread can be started the main queue tries again later; it keeps its timer.
            DispatchQueue::main().asyncAfter(std::chrono::hours(1), [] {});
          },
      .run =
          [&] {
            try {
              center->post("name");
            } catch (const SystemError&) {
              return false;
            }
            return told.try_acquire_for(deadline);
          },
      .verify = [](Outcome) {},
      .mayHide = [](const GatedCall&) { return true; },  // it was told
  });
}

/// A keychain that holds one certificate; another is added, and then the first is removed.
struct Certificates {
  explicit Certificates(SecPreferencesDomain domain_) : domain(domain_) {}

  SecKeychain keychain() const { return store->searchList(domain).keychains.at(0); }
  bool add(const SecCertificate& certificate, const char* label) const {
    return store->add(certificate, label, keychain()).isSuccess();
  }
  /// The operation adds the second one.
  void failEveryCall(FaultyOperation operation, std::function<void(Outcome)> verifyRemoved) const {
    operation.prepare = [this] { EXPECT_TRUE(add(first, "first")); };
    operation.again = [this] {
      const auto number = store->add(second, "second", keychain()).number;
      return number == errSecSuccess || number == errSecDuplicateItem;
    };
    test::failEveryCall(operation);
    operation.run = [this] { return store->remove("first", keychain()).isSuccess(); };
    operation.again = [this] {
      const auto number = store->remove("first", keychain()).number;
      return number == errSecSuccess || number == errSecItemNotFound;
    };
    operation.verify = std::move(verifyRemoved);
    test::failEveryCall(operation);
  }

  SecPreferencesDomain domain;
  TestCertificates made;
  SecCertificate first = made.authority("first", "/CN=first");
  SecCertificate second = made.authority("second", "/CN=second");
  std::unique_ptr<CertificateStoreLinux> store;
};

TEST(Faults, UserCertificates) {
  Certificates certificates(SecPreferencesDomain::user);
  const auto has = [&](const char* label) {
    const CertificateList list = certificates.store->list(certificates.keychain());
    EXPECT_TRUE(list.status.isSuccess()) << list.status.text();
    return std::ranges::find(list.items, label, &CertificateItem::label) != list.items.end();
  };
  certificates.failEveryCall(
      {
          .enter =
              [&](const std::string& folder) {
                ::setenv("HOME", folder.c_str(), 1);
                certificates.store = std::make_unique<CertificateStoreLinux>();
              },
          .run = [&] { return certificates.add(certificates.second, "second"); },
          .verify =
              [&](Outcome outcome) {
                EXPECT_TRUE(has("first"));
                EXPECT_TRUE(outcome != Outcome::succeeded || has("second"));
              },
          // What the library can do without, it does without; the certificate is there all the
          // same.
          .mayHide = [](const GatedCall&) { return true; },
          .mayGiveUp = [](const GatedCall&) { return true; },
          .mayRemain = [](const std::string& name) { return name.ends_with("-journal"); },
          // The library's own initialisation is not meant.
          .isSpared =
              [](const GatedCall& call) {
                return call.subject.find("nssdb/") == std::string::npos;
              },
      },
      [&](Outcome outcome) { EXPECT_TRUE(outcome != Outcome::succeeded || !has("first")); });
}

/// With a tool of the test's own, which is quick; the real one is tried elsewhere.
TEST(Faults, MachineCertificates) {
  Certificates certificates(SecPreferencesDomain::common);
  std::string root;
  /// Whether it is in the list of the machine's programs.
  const auto isTrusted = [&](const SecCertificate& certificate) {
    const std::string list = readFile(root + "/etc/ssl/certs/ca-certificates.crt");
    return list.find(certificate.pem()) != std::string::npos;
  };
  certificates.failEveryCall(
      {
          .enter =
              [&](const std::string& folder) {
                root = folder;
                fs::create_directories(root + "/etc/ssl/certs");
                fs::create_directories(root + "/usr/local/share");
                const std::string tool = root + "/tool";
                if (!fs::exists(tool)) {
                  writeFile(tool, "#!/bin/sh\ncd '" + root +
                                      "' && for file in usr/local/share/ca-certificates/*.crt; do\n"
                                      "[ ! -f \"$file\" ] || cat \"$file\"; done >list.$$ || exit "
                                      "1\nexec mv list.$$ etc/ssl/certs/ca-certificates.crt\n");
                  ::chmod(tool.c_str(), 0755);
                }
                certificates.store = std::make_unique<CertificateStoreLinux>(root, tool);
                warmUp();
              },
          .run = [&] { return certificates.add(certificates.second, "second"); },
          .verify =
              [&](Outcome outcome) {
                EXPECT_TRUE(isTrusted(certificates.first));
                if (outcome == Outcome::killed) return;
                EXPECT_EQ(isTrusted(certificates.second), outcome == Outcome::succeeded);
                for (const auto& item : certificates.store->list(certificates.keychain()).items) {
                  EXPECT_TRUE(isTrusted(item.certificate)) << "it is listed, and nobody trusts it";
                }
              },
          .mayHide =
              [](const GatedCall& call) {
                return call.isOneOf({"flock", "stat", "mkdir", "unlink", "getdents"}) ||
                       call.text().starts_with("read (pipe:");  // what the tool says
              },
          // Looking for what killed processes left; and a tool that can't be watched is killed.
          .isTidying =
              [](const GatedCall& call) {
                return call.isOneOf({"pidfd_open"}) ||
                       (call.name == "open" && (call.subject.ends_with("/ca-certificates") ||
                                                call.subject.ends_with("/.")));
              },
          .mayRemain = [](const std::string& name) { return name.starts_with("list."); },
      },
      [&](Outcome outcome) {
        EXPECT_TRUE(outcome == Outcome::killed ||
                    isTrusted(certificates.first) == (outcome != Outcome::succeeded));
      });
}

}  // namespace
}  // namespace velum::test
