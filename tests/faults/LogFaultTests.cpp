// Every system call of logging, rotating and saving fails once, and once the process is killed
// there.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <semaphore>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/FileLogManager.h"
#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/LogRecord.h"
#include "tests/faults/FaultTest.h"
#include "tests/support/LogRecords.h"
#include "tests/support/RecordingSystemLog.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* subsystem = "com.example.vpn";

std::string records(std::string_view text, int count) {
  std::string content;
  for (int i = 0; i < count; ++i) {
    content += makeRecordPrefix(std::chrono::system_clock::now(), subsystem);
    content.append(text).append("\n");
  }
  return content;
}

/// A log in a folder and its handler.
struct Log {
  void enter(const std::string& folder) {
    path = folder + "/name.log";
    rotated = folder + "/name.1.log";
    out = folder + "/out";
  }
  void open() {
    systemLog = std::make_shared<RecordingSystemLog>();
    handler = FileLogHandler::create(subsystem, path, true, policy,
                                     {.fileEvents = &FileEvents::shared(), .systemLog = systemLog});
  }
  void write(std::string_view text) const {
    handler->logWithLevel(LogLevel::info, std::chrono::system_clock::now(), text);
  }
  bool hasSaid(std::string_view text) const {
    return std::ranges::any_of(systemLog->entries(), [&](const auto& entry) {
      return entry.second.find(text) != std::string::npos;
    });
  }
  /// Whether a copy has not got its name yet, or was left behind.
  bool isCopying() const {
    const fs::directory_iterator files(fs::path(path).parent_path());
    return std::ranges::any_of(files, [this](const auto& file) {
      return file.path().native().starts_with(rotated + '.');
    });
  }
  bool isRecorded(std::string_view text) const {
    return readFile(path).find(text) != std::string::npos;
  }
  /// Nothing is torn, in neither file.
  void expectWhole() const {
    for (const std::string& file : {path, rotated}) {
      EXPECT_EQ(readRecords(readFile(file), subsystem).broken, std::vector<std::string>()) << file;
    }
  }

  std::string path;
  std::string rotated;
  std::string out;
  RotationPolicy policy{.firstCheck = 1h};
  std::shared_ptr<RecordingSystemLog> systemLog;
  std::shared_ptr<FileLogHandler> handler;
};

TEST(Faults, LogRecord) {
  Log log;
  failEveryCall({
      .enter = [&](const std::string& folder) { log.enter(folder); },
      .prepare =
          [&] {
            log.open();
            log.write("before");
          },
      .run =
          [&] {
            log.write("during");
            return log.isRecorded("during");
          },
      .verify =
          [&](Outcome) {
            log.expectWhole();
            EXPECT_TRUE(log.isRecorded("before"));
          },
      .again =
          [&] {
            if (!log.handler) log.open();
            log.write("later");
            return log.isRecorded("later");
          },
      .mayHide = [](const GatedCall& call) { return call.isOneOf({"flock"}); },
      .isSpared =
          [](const GatedCall& call) {
            return call.isOneOf({"open", "read"});
          },  // looking
      .calls = {"flock", "write", "flock"},
  });
}

/// A handler made, its first record and a rotation; what fails shows in the system log.
TEST(Faults, LogRotation) {
  Log log;
  const std::string old = records("old", 50);
  failEveryCall({
      .enter =
          [&](const std::string& folder) {
            log.enter(folder);
            // Each check writes as well, and must not soon make another rotation due.
            log.policy = {.maxSize = 3'000, .firstCheck = 1ms, .checkInterval = 20ms};
          },
      .prepare =
          [&] {
            writeFile(log.path, old);
            DispatchQueue::main().asyncAfter(1h, [] {});  // its descriptors are not meant here
          },
      .run =
          [&] {
            log.open();
            const auto has = [&](std::string_view text) { return log.hasSaid(text); };
            EXPECT_TRUE(eventually([&] {
              DispatchQueue::global().async([] {});  // asks for a thread again where there is none
              return has("has been rotated") || has("Failed");
            }));
            if (has("Failed to start")) {
              log.write("next");  // starts it
              EXPECT_TRUE(eventually([&] { return has("has been rotated"); }));
            }
            return !has("Failed");
          },
      .isSettled = [&] { return !log.isCopying(); },  // the next check may have begun
      .verify =
          [&](Outcome outcome) {
            log.handler.reset();
            log.expectWhole();
            EXPECT_TRUE(readFile(log.path).starts_with(old) ||
                        readFile(log.rotated).starts_with(old) || outcome == Outcome::succeeded);
          },
      .again =
          [&] {
            log.open();
            return eventually([&] { return log.hasSaid("has been rotated"); });
          },
      // Internal records are dropped like any other; copies have other ways.
      .mayHide =
          [](const GatedCall& call) {
            return call.isOneOf(
                {"flock", "clone_file", "copy_file_range", "stat", "write", "clone"});
          },
      // The reactor has other ways, which take another number of descriptors.
      .isSpared =
          [](const GatedCall& call) {
            return call.isOneOf({"eventfd", "timerfd_create"});
          },
  });
}

/// Whether the last part of the path is a save's temporary folder or in it.
bool isScratch(const std::string& path) {
  return path.find("out/log.") != std::string::npos;
}

/// A log of two files, saved in one way.
void failSaving(const std::function<void(FileLogManager& manager, const std::string& out)>& save,
                const std::string& name) {
  Log log;
  const std::string old = records("old", 40);
  const std::string live = records("live", 40);
  failEveryCall({
      .enter = [&](const std::string& folder) { log.enter(folder); },
      .prepare =
          [&] {
            writeFile(log.rotated, old);
            writeFile(log.path, live);
            writeFile(log.out + '/' + name, "saved before");
          },
      .run =
          [&] {
            try {
              FileLogManager manager(log.path);
              save(manager, log.out);
            } catch (const SystemError&) {
              return false;
            }
            return true;
          },
      .verify =
          [&](Outcome outcome) {
            const std::string saved = readFile(log.out + '/' + name);
            EXPECT_TRUE(saved == old + live ||
                        (saved == "saved before" && outcome != Outcome::succeeded))
                << saved.size();
            EXPECT_EQ(readFile(log.path), live);
            EXPECT_EQ(readFile(log.rotated), old);
          },
      .mayHide =
          [](const GatedCall& call) {
            return call.isOneOf({"flock", "clone_file", "copy_file_range", "link"});
          },
      .isTidying =
          [](const GatedCall& call) {
            return isScratch(call.subject) || call.subject.ends_with("/out") ||
                   call.subject.ends_with("/out/");
          },
      .mostCalls = 80,
  });
}

TEST(Faults, SaveWholeLog) {
  failSaving([](FileLogManager& manager, const std::string& out) { manager.saveWholeLog(out); },
             "name.log");
}

TEST(Faults, SaveSplitLogs) {
  failSaving([](FileLogManager& manager,
                const std::string& out) { manager.saveLogs(LogSubsystemSelector::all(), out, {}); },
             std::string(subsystem) + ".log");
}

}  // namespace
}  // namespace velum::test
