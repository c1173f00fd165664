#include "Velum/SupportUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <thread>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Process.h"
#include "Velum/SystemUtils.h"
#include "tests/support/Environment.h"
#include "tests/support/Errors.h"
#include "tests/support/FakeWorkspace.h"
#include "tests/support/Inspection.h"
#include "tests/support/Processes.h"
#include "tests/support/RecordingLogHandler.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;
using Case = SupportLogArchivingError::Case;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// Saves one file, and calls `saving` before.
class FakeLogManager final : public LogManagerProtocol {
 public:
  std::vector<std::string> saveLogs(const LogSubsystemSelector& selector, const std::string& folder,
                                    const LogSavingOpts& opts,
                                    const Progress* /*progress*/) override {
    saving();
    EXPECT_TRUE(selector.admits("any") && !selector.isWhole());
    options = opts;
    if (isEmpty) return {};
    writeFile(folder + "/any.log", "records");
    return {folder + "/any.log"};
  }
  bool holds(const std::string& path) const override { return path.ends_with("/live.log"); }

  std::function<void()> saving = [] {};
  LogSavingOpts options;
  bool isEmpty = false;
};

/// Cancels when the record comes that ends with a text.
class CancellingLog final : public LogHandlerProtocol {
 public:
  void logWithLevel(LogLevel /*level*/, LogDate /*date*/, std::string_view text) override {
    if (text.ends_with(end)) known.get()->cancel();
  }

  std::string end;
  std::promise<std::shared_ptr<Progress>> progress;
  std::shared_future<std::shared_ptr<Progress>> known{progress.get_future()};
};

class SupportArchive : public ::testing::Test {
 protected:
  SupportArchive() {
    fs::create_directory(temporary_);
    Logger::shared().setHandlers({log_});
  }
  void TearDown() override {
    Logger::shared().setHandlers({});
    EXPECT_TRUE(fs::is_empty(temporary_)) << "something temporary is left";
    EXPECT_TRUE(Family::children().empty()) << "a zombie is left";
  }

  /// Starts an archive; the future has its error.
  std::future<std::exception_ptr> start(SupportItems items, bool showInFinder = false) {
    auto end = std::make_shared<std::promise<std::exception_ptr>>();
    progress_ = SupportUtils::createArchive(
        destination_, std::move(items), SupportLogsPurpose::report, std::nullopt, showInFinder,
        [end](std::exception_ptr error) { end->set_value(std::move(error)); }, services_);
    return end->get_future();
  }

  /// Makes an archive. What went wrong: "", the number of a case, or the text of a system's error.
  std::string create(SupportItems items, bool showInFinder = false) {
    return textOf(start(std::move(items), showInFinder).get());
  }

  static std::string textOf(const std::exception_ptr& error) try {
    if (error) std::rethrow_exception(error);
    return "";
  } catch (const SupportLogArchivingError& failure) {
    return std::to_string(static_cast<int>(failure.reason()));
  } catch (const SystemError& failure) {
    return systemErrorText(failure.code());
  }
  static std::string textOf(Case reason) { return std::to_string(static_cast<int>(reason)); }

  /// The content of a file in the archive.
  std::string packed(const std::string& name) const {
    const CliResult result =
        SystemUtil::cliUtil("/usr/bin/unzip", {"-p", destination_, name}, std::nullopt, true);
    return result.status == 0 ? std::string(result.output->view()) : "not there";
  }

  std::string lastRecord() const { return log_->texts().back(); }

  Family family_;
  TemporaryFolder folder_;
  std::string temporary_ = folder_ / "temporary";
  ScopedVariable variable_{"TMPDIR", temporary_};
  std::string destination_ = folder_ / "sent/support.zip";
  std::shared_ptr<RecordingLogHandler> log_ = std::make_shared<RecordingLogHandler>();
  FakeLogManager logManager_;
  FakeWorkspace workspace_;
  SupportUtils::Services services_{&logManager_, &workspace_};
  std::shared_ptr<Progress> progress_;
};

TEST(SupportLogsPurpose, DecidesHowMuchOfTheLogIsTaken) {
  const LogDate now(std::chrono::seconds(1'000'000));
  const LogSavingOpts report = logSavingOpts(supportLogsPurpose(0), std::nullopt, now);
  EXPECT_EQ(report.endDate, now + std::chrono::seconds(60));
  EXPECT_EQ(report.startDate, now + std::chrono::seconds(60 - 172'800));
  EXPECT_EQ(report.maxSize, 31'457'280);
  const LogSavingOpts diagnosis = logSavingOpts(supportLogsPurpose(1), std::nullopt, now);
  EXPECT_EQ(diagnosis.startDate, now + std::chrono::seconds(60 - 86'400));
  EXPECT_EQ(diagnosis.maxSize, std::nullopt);
  EXPECT_EQ(logSavingOpts(supportLogsPurpose(1), now, now).startDate, now);
  EXPECT_DEATH(supportLogsPurpose(2), "out of range: 2");
}

TEST_F(SupportArchive, HoldsTheLogsAndEveryKindOfItem) {
  writeFile(folder_ / "file", "a file");
  writeFile(folder_ / "tree/sub/leaf", "a leaf");
  fs::create_symlink("/etc/passwd", folder_ / "tree/link");
  fs::create_directory_symlink(".", folder_ / "tree/loop");
  ::mkfifo((folder_ / "tree/fifo").c_str(), 0600);
  fs::create_symlink(folder_ / "file", folder_ / "link");
  ASSERT_EQ(create({{"text.txt", std::string("a t\xC3\xA9xt")},
                    {"sub/folder/data", std::vector<std::uint8_t>{0, 255, 10}},
                    {"file/", FileUrl{folder_ / "file"}},
                    {"linked", FileUrl{folder_ / "link"}},
                    {"./tree", FileUrl{folder_ / "tree"}}}),
            "");
  EXPECT_EQ(modeOf(destination_), 0600);
  EXPECT_EQ(packed("support/any.log"), "records");
  EXPECT_EQ(packed("support/text.txt"), "a t\xC3\xA9xt");
  EXPECT_EQ(packed("support/sub/folder/data"), std::string("\0\xff\n", 3));
  EXPECT_EQ(packed("support/file"), "a file");
  EXPECT_EQ(packed("support/linked"), "a file");
  EXPECT_EQ(packed("support/tree/sub/leaf"), "a leaf");
  for (const std::string name : {"link", "loop", "fifo"}) {
    EXPECT_EQ(packed("support/tree/" + name), "not there");
  }
  EXPECT_EQ(progress_->totalUnitCount(), 7);
  EXPECT_EQ(progress_->completedUnitCount(), 7);
  EXPECT_THAT(log_->texts(), AllOf(Contains("I: (SupportUtils) Generating logs archive started"),
                                   Contains(HasSubstr("File for archive output written to: ")),
                                   Contains(HasSubstr("File for archive output copied to: "))));
  EXPECT_EQ(lastRecord(), "I: (SupportUtils) Log archive was written to: " + destination_);
  EXPECT_EQ(logManager_.options.maxSize, 31'457'280);
}

TEST_F(SupportArchive, RefusesItemsWithoutNameOrOfUnknownKind) {
  writeFile(destination_, "old");
  EXPECT_EQ(create({{"", std::string("text")}}), textOf(Case::emptyItemName));
  constexpr std::string_view tag =
      "E: (SupportUtils: saveItem(value:relativePath:archiveFolderUrl:)) ";
  EXPECT_EQ(lastRecord(), std::string(tag) + "Relative path is empty");
  EXPECT_EQ(create({{"number", UnsupportedItem{"42"}}}), textOf(Case::invalidItemType));
  EXPECT_EQ(lastRecord(), std::string(tag) + "Unexpected value for save: 42");
  EXPECT_EQ(progress_->completedUnitCount(), 1) << "the logs";
  EXPECT_EQ(readFile(destination_), "old");
}

TEST_F(SupportArchive, ReportsItemsThatCannotBeSaved) {
  const std::string fifo = folder_ / "fifo";
  ::mkfifo(fifo.c_str(), 0600);
  EXPECT_EQ(create({{"item", FileUrl{fifo}}}), "Invalid argument");
  EXPECT_EQ(create({{"item", FileUrl{folder_.path()}}}), "Invalid argument")
      << "it holds the archive in the making";
  EXPECT_EQ(create({{"item", FileUrl{folder_ / "missing"}}}), "No such file or directory");
  EXPECT_THAT(lastRecord(), AllOf(HasSubstr("Can't write/copy file to \"" + temporary_),
                                  HasSubstr("/support/item\"")));
  EXPECT_EQ(create({{"a", std::string()}, {"a/b", std::string()}}), "Not a directory");
  EXPECT_EQ(create({{".", FileUrl{"/etc/hosts"}}}), "File exists");
  for (const SupportItem& item :
       {SupportItem(std::string("x")), SupportItem(FileUrl{"/etc/hosts"})}) {
    EXPECT_EQ(create({{"any.log", item}}), "File exists") << "a saved log's name";
    EXPECT_EQ(create({{"./a", item}, {"a", item}}), "File exists");
  }
  writeFile(folder_ / "tree/leaf", "a leaf");
  EXPECT_EQ(create({{"tree", FileUrl{folder_ / "tree"}}, {"tree/leaf", std::string()}}),
            "File exists");
}

TEST_F(SupportArchive, LetsNothingOutOfItsFolder) {
  fs::create_directory(folder_ / "inside");
  writeFile(folder_ / "victim/file", "untouched");
  fs::create_directory_symlink(folder_ / "victim", folder_ / "inside/link");
  fs::create_symlink(folder_ / "victim/file", folder_ / "inside/file");
  const std::vector<std::string> paths{
      "../new", "sub/../../new",       folder_ / "new", "link/new", "file", "link",
      "..",     std::string("a\0b", 3)};
  for (const std::string& path : paths) {
    for (const SupportItem& item :
         {SupportItem(std::string("x")), SupportItem(FileUrl{"/etc/hosts"})}) {
      const auto save = [&] { SupportUtils::saveItem(item, path, folder_ / "inside"); };
      EXPECT_EQ(errorOf(save).code(), EPERM) << path;
    }
  }
  EXPECT_EQ(create({{"sub/../../new", std::string("x")}}), "Operation not permitted");
  EXPECT_FALSE(fs::exists(folder_ / "new"));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_ / "victim"), fs::directory_iterator()), 1);
  EXPECT_EQ(readFile(folder_ / "victim/file"), "untouched");
}

TEST_F(SupportArchive, FailsWithoutATemporaryFolderOrAName) {
  {
    const ScopedVariable none("TMPDIR", folder_ / "none");
    EXPECT_EQ(create({}), textOf(Case::createTempFolderFailed));
    EXPECT_THAT(lastRecord(), HasSubstr("Failed to create temporary archive folder. "));
  }
  for (const std::string name : {"", "/", "..", "\xff.zip", "..zip", "...zip"}) {
    destination_ = name;
    EXPECT_EQ(create({}), textOf(Case::createTempFolderFailed)) << name;
  }
}

TEST_F(SupportArchive, FailsWithTheLogsAndWithoutAWritableDestination) {
  logManager_.saving = [] { throw SystemError(EIO, "read"); };
  EXPECT_EQ(create({}), "Input/output error");
  writeFile(folder_ / "sent", "a file where the folder should be");
  logManager_.saving = [] { FAIL() << "all the work was done before the failure"; };
  EXPECT_EQ(create({}), "Not a directory");
  fs::remove(folder_ / "sent");
  fs::create_symlink("sent", folder_ / "sent");  // nobody can say what is in it
  EXPECT_EQ(create({}), "Too many levels of symbolic links");
  destination_ = folder_ / "live.log";
  EXPECT_EQ(create({}), "File exists");
  logManager_.saving = [] {};
  logManager_.isEmpty = true;
  destination_ = folder_ / "full";
  writeFile(destination_ + "/precious", "content");
  EXPECT_EQ(create({}), "Directory not empty");
  EXPECT_EQ(readFile(destination_ + "/precious"), "content");
  EXPECT_THAT(log_->texts(), Contains(StartsWith("W: (SupportUtils) No record of the log is of")));
}

TEST_F(SupportArchive, StopsAtEachStepWhenCancelled) {
  std::promise<void> cancelled;
  logManager_.saving = [&] { cancelled.get_future().wait(); };
  auto end = start({});
  progress_->cancel();
  cancelled.set_value();
  EXPECT_EQ(textOf(end.get()), textOf(Case::cancelled)) << "before or during the logs";
  logManager_.saving = [] {};
  EXPECT_EQ(lastRecord(), "I: (SupportUtils) Log archiving cancelled");

  for (const std::string last : {"a", "b"}) {
    const auto canceller = std::make_shared<CancellingLog>();
    canceller->end = "/support/" + last;
    Logger::shared().setHandlers({canceller});
    end = start({{"a", std::string("x")}, {"b", std::string("x")}});
    canceller->progress.set_value(progress_);
    EXPECT_EQ(textOf(end.get()), textOf(Case::cancelled)) << "after " << last;
    EXPECT_EQ(progress_->completedUnitCount(), last == "a" ? 2 : 3);
  }
  EXPECT_FALSE(fs::exists(fs::path(destination_).parent_path()));

  Logger::shared().setHandlers({log_});
  writeFile(folder_ / "tree/leaf", "a leaf");
  for (const std::string& path : {folder_ / "tree", std::string("/proc/version")}) {
    const auto copy = [&] {
      SupportUtils::saveItem(FileUrl{path}, path.substr(path.rfind('/') + 1), folder_ / "inside",
                             progress_.get());
    };
    EXPECT_EQ(errorOf(copy).code(), ECANCELED) << "while it copies";
    EXPECT_EQ(lastRecord(), "I: (SupportUtils) Log archiving cancelled") << "an error is logged";
  }
}

TEST_F(SupportArchive, StopsThePackingWhenCancelled) {
  std::vector<std::uint8_t> noise(32 << 20);
  std::ranges::generate(noise, [state = 1U]() mutable {
    state = state * 1'664'525U + 1'013'904'223U;
    return static_cast<std::uint8_t>(state >> 24U);
  });
  auto end = start({{"noise", std::move(noise)}});
  // The packing is the last third. The tool would never end by itself.
  ASSERT_TRUE(eventually([&] { return progress_->fractionCompleted() > 2.0 / 3; }));
  for (const pid_t zip : Family::children()) ::kill(zip, SIGSTOP);
  EXPECT_LT(progress_->fractionCompleted(), 1) << "it was too quick";
  progress_->cancel();
  EXPECT_EQ(textOf(end.get()), textOf(Case::cancelled));
  EXPECT_EQ(lastRecord(), "I: (SupportUtils) Log archiving cancelled");
  EXPECT_FALSE(fs::exists(destination_));
}

TEST_F(SupportArchive, ShowsItselfButDoesNotHangWithTheFileViewer) {
  std::vector<std::string> shown;
  workspace_.showing = [&](const std::vector<std::string>& paths) { shown = paths; };
  EXPECT_EQ(create({}, true), "");
  EXPECT_THAT(shown, ElementsAre(destination_));
  std::promise<void> end;
  std::promise<void> over;
  workspace_.showing = [&](const std::vector<std::string>&) {
    end.get_future().wait();
    over.set_value();
  };
  services_.revealTimeout = std::chrono::milliseconds(500);
  EXPECT_EQ(create({}, true), "");
  EXPECT_THAT(lastRecord(), EndsWith(" timed out for 0.5 secs."));
  end.set_value();
  over.get_future().wait();
}

}  // namespace
}  // namespace velum::test
