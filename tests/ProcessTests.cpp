#include "Velum/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "Velum/Base/LineSplitter.h"
#include "Velum/Logger/Logger.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Errors.h"
#include "tests/support/Inspection.h"
#include "tests/support/Processes.h"
#include "tests/support/RecordingLogHandler.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using Lines = std::vector<std::string>;

/// The lines of `text`, fed in chunks of `size` bytes; `skip` says which chunks are fed unread.
Lines split(
    std::string_view text, std::size_t size,
    const std::function<bool(std::size_t)>& skip = [](std::size_t) { return false; }) {
  LineSplitter splitter;
  Lines lines;
  const auto sink = [&](std::string_view line) { lines.emplace_back(line); };
  for (std::size_t at = 0; at < text.size(); at += size) {
    const std::string_view chunk = text.substr(at, size);
    skip(at) ? splitter.skip(chunk) : splitter.feed(chunk, sink);
  }
  splitter.finish(sink);
  return lines;
}

TEST(LineSplitter, CutsAtEveryKindOfEndWhereverChunksEnd) {
  using namespace std::string_view_literals;
  constexpr std::string_view text = "one\ntwo\rthree\r\n\nfive\r\rseven\n\r\n\0 nine"sv;
  const Lines lines{"one", "two", "three", "", "five", "", "seven", "", std::string("\0 nine", 6)};
  for (std::size_t size = 1; size <= text.size(); ++size) {
    EXPECT_EQ(split(text, size), lines) << "chunks of " << size;
  }
  EXPECT_EQ(split("", 1), Lines{});
  EXPECT_EQ(split("\r\n", 1), Lines{""});
}

TEST(LineSplitter, KeepsTheUnendedPartOfWhatIsSkipped) {
  for (const std::size_t skipped : {std::size_t{0}, std::size_t{6}}) {
    const auto lines = split("a\rbc\r\nde\nf", 6, [=](std::size_t at) { return at == skipped; });
    EXPECT_EQ(lines, skipped == 0 ? (Lines{"de", "f"}) : (Lines{"a", "bc", "f"}));
  }
  EXPECT_EQ(split("abcd\nf", 2, [](std::size_t at) { return at == 0; }), (Lines{"abcd", "f"}));
}

TEST(LineSplitter, CutsLinesWithoutEndSomewhere) {
  constexpr std::size_t longest = LineSplitter::longestLine;
  const std::string line(2 * longest + 5, 'x');
  const Lines pieces{std::string(longest, 'x'), std::string(longest, 'x'), "xxxxx", "end"};
  for (const std::size_t size : {longest / 3, longest, 3 * longest}) {
    EXPECT_EQ(split(line + "\nend", size), pieces) << "chunks of " << size;
  }
  EXPECT_EQ(split(std::string(longest, 'x') + "\n", 1000).size(), 1U);
}

TEST(Pipe, GathersWhatEveryWriterWroteAndSaysWhyItCannot) {
  velum::Pipe pipe;
  const std::string content(200'000, 'x');
  std::thread writer([&] {
    pipe.write(content);
    pipe.closeWriteEnd();
  });
  EXPECT_EQ(pipe.gatherData().view(), content);
  writer.join();
  pipe.closeReadEnd();
  const SystemError error = errorOf([&] { pipe.gatherData(); });
  EXPECT_EQ(error.code(), EBADF);
  EXPECT_EQ(error.message(), "Reading data from pipe");
}

TEST(Pipe, WritingToNobodyIsAnErrorAndNoSignal) {
  velum::Pipe pipe;
  pipe.closeReadEnd();
  EXPECT_THROW(pipe.write("x"), SystemError);
}

/// Each test logs into a recorder of its own.
class ProcessRun : public ::testing::Test {
 protected:
  ProcessRun() { Logger::shared().setHandlers({log_}); }
  void TearDown() override { Logger::shared().setHandlers({}); }

  std::vector<std::string> log() const { return log_->texts(); }

  /// Runs a shell script to its end; what its output became, without the lines about the run.
  Lines outputOf(const std::string& script, RunOptions options = {}) {
    options.args = {"-c", script};
    options.wait = true;
    process_ = Process::run("/bin/sh", options);
    Lines lines = log();
    if (lines.size() < 2) return {"not run"};
    EXPECT_EQ(lines.front(), "I: (Process) Running /bin/sh -c " + script + " ");
    EXPECT_THAT(lines.back(), StartsWith("I: (Process) /bin/sh (pid: "));
    lines = {lines.begin() + 1, lines.end() - 1};
    for (std::string& line : lines) {
      EXPECT_THAT(line, StartsWith(prefix));
      line.erase(0, prefix.size());
    }
    return lines;
  }

  static constexpr std::string_view prefix = "I: (Process) ";

  Family family_;
  std::shared_ptr<RecordingLogHandler> log_ = std::make_shared<RecordingLogHandler>();
  std::shared_ptr<Process> process_;
};

TEST_F(ProcessRun, LogsBothStreamsAndHowItEnded) {
  EXPECT_THAT(outputOf("echo out; echo err >&2; printf end; exit 3"),
              ElementsAre("out", "err", "end"));
  EXPECT_EQ(process_->termination(), (Termination{3, Termination::Reason::exit}));
  EXPECT_EQ(log().back(), "I: (Process) /bin/sh (pid: " +
                              std::to_string(process_->processIdentifier()) + ") returned 3");
  EXPECT_TRUE(Family::children().empty());
}

TEST_F(ProcessRun, NamesTheFolderItRunsInAndFindsARelativeTool) {
  const TemporaryFolder folder;
  const auto tool = std::filesystem::relative("/bin/pwd").string();
  ASSERT_TRUE(Process::run(tool, {.args = {"-P"}, .workdir = folder.path(), .wait = true}));
  EXPECT_EQ(log().front(), "I: (Process) Running " + tool + " -P  in " + folder.path());
  EXPECT_EQ(log().at(1), std::string(prefix) + folder.path());
}

TEST_F(ProcessRun, RefusesWhatIsNotExecutable) {
  const TemporaryFolder folder;
  writeFile(folder / "plain", "#!/bin/sh\n");
  for (const std::string& path : {folder / "plain", folder / "missing", folder.path()}) {
    EXPECT_EQ(Process::run(path), nullptr);
    EXPECT_EQ(log().back(), "E: (Process: run(_:args:workdir:inpipe:outpipe:errpipe:wait:)) File " +
                                path + " can not be executed");
  }
}

TEST_F(ProcessRun, SaysWhyALaunchFailedAndLetsTheReaderOfItsPipeGoOn) {
  const TemporaryFolder folder;
  const std::string tool = folder / "tool";
  writeFile(tool, "#!/no/such/interpreter\n");
  std::filesystem::permissions(tool, std::filesystem::perms::all);
  const auto output = std::make_shared<velum::Pipe>();
  EXPECT_EQ(Process::run(tool, {.args = {"a", "b c"}, .outpipe = output}), nullptr);
  EXPECT_THAT(log().back(), AllOf(HasSubstr(") Failed to run `" + tool + " a b c`. "),
                                  HasSubstr("No such file or directory")));
  EXPECT_TRUE(output->gatherData().empty());
  EXPECT_EQ(Process::run("/bin/true", {.workdir = folder / "missing"}), nullptr);
  EXPECT_THAT(log().back(), HasSubstr("chdir (" + folder / "missing" + "): No such file"));
  EXPECT_EQ(Process::run("/bin/true", {.outpipe = output}), nullptr) << "a used pipe";
}

TEST_F(ProcessRun, ConnectsAllThreePipes) {
  const RunOptions options{.args = {"-c", "cat; echo error >&2"},
                           .inpipe = std::make_shared<velum::Pipe>(),
                           .outpipe = std::make_shared<velum::Pipe>(),
                           .errpipe = std::make_shared<velum::Pipe>()};
  const auto process = Process::run("/bin/sh", options);
  ASSERT_TRUE(process);
  EXPECT_TRUE(process->isRunning());
  options.inpipe->write("through");
  options.inpipe->closeWriteEnd();
  EXPECT_EQ(options.outpipe->gatherData().view(), "through");
  EXPECT_EQ(options.errpipe->gatherData().view(), "error\n");
  EXPECT_EQ(process->waitUntilExit(), Termination{});
}

TEST_F(ProcessRun, EndsWithAllItStartedWhenAsked) {
  for (const std::string script : {"", "trap '' TERM; "}) {
    RunOptions options;
    options.keepRunning = [&](pid_t tool) {
      EXPECT_EQ(::getsid(tool), tool);
      return Family::children().empty() || log_->texts().size() < 2;
    };
    // What it started outlives the signal, whether or not it does itself.
    const std::string stubborn = "(trap '' TERM; echo; exec sleep 1000) & ";
    EXPECT_THAT(outputOf(script + stubborn + "while sleep 1; do :; done", options),
                ElementsAre(""));
    EXPECT_EQ(process_->termination(), (Termination{script.empty() ? SIGTERM : SIGKILL,
                                                    Termination::Reason::uncaughtSignal}));
    for (const pid_t child : Family::children()) EXPECT_TRUE(hasEnded(child));
    log_ = std::make_shared<RecordingLogHandler>();
    Logger::shared().setHandlers({log_});
  }
}

TEST_F(ProcessRun, IsNotWaitedForInAForkedChild) {
  const auto process = Process::run("/bin/sleep", {.args = {"1000"}});
  inChild([&] {
    EXPECT_EQ(process->waitUntilExit(), (Termination{255, Termination::Reason::exit}));
    EXPECT_FALSE(process->isRunning());
  });
  ::kill(process->processIdentifier(), SIGKILL);
  process->waitUntilExit();
}

TEST_F(ProcessRun, NeedsNobodyWhoHoldsIt) {
  const TemporaryFolder folder;
  LineReader ends(folder / "fifo");
  const pid_t pid = Process::run("/bin/sh", {.args = {"-c", "echo end > " + folder / "fifo"}})
                        ->processIdentifier();
  EXPECT_EQ(ends.next(), "end");
  ASSERT_TRUE(hasEnded(pid));
  const std::string last = "I: (Process) /bin/sh (pid: " + std::to_string(pid) + ") returned 0";
  EXPECT_TRUE(eventually([&] { return std::ranges::count(log(), last) == 1; }));
  EXPECT_TRUE(Family::children().empty()) << "reaped";
}

TEST_F(ProcessRun, ServesSeveralThreadsAndLeaksNothing) {
  constexpr int threads = 8;
  constexpr int runs = 10;
  outputOf("true");
  const std::ptrdiff_t before = openDescriptors();
  std::vector<std::thread> workers;
  for (int worker = 0; worker < threads; ++worker) {
    workers.emplace_back([] {
      for (int i = 0; i < runs; ++i) {
        const auto process = Process::run("/bin/echo", {.args = {"output"}, .wait = true});
        EXPECT_EQ(process->termination(), Termination{});
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_EQ(std::ranges::count(log(), "I: (Process) output"), threads * runs);
  EXPECT_TRUE(Family::children().empty());
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; })) << "closed on their queues";
}

}  // namespace
}  // namespace velum::test
