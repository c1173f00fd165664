#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/LogRecord.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class Velumctl : public VelumctlTest {
 protected:
  // One record, as handlers write it.
  static std::string record(std::string_view time, std::string_view subsystem,
                            std::string_view text) {
    return fmt::format("\x1E{} {}.000 {:5}:{:<8x} [{}] {}\n", "2026-11-20", time, 321, 6659,
                       subsystem, text);
  }
  void writeSampleLog() const {
    writeFile(folder_ / "app.1.log", "no record\n" + record("09:00:00", "a.ui", "I: (Ui) one") +
                                         record("09:30:00", "a.net", "W: (Net) two\nlines"));
    writeFile(log_, record("10:00:00", "a.net", "E: (Net: go()) three") +
                        record("10:30:00", "a.ui", "D: (Ui: go()) four \xFF \x1E \x1B[2J\xC2\x9B") +
                        record("11:00:00", "a.ui", "five"));
  }

  std::string log_ = folder_ / "app.log";
};

Strings messages(const std::string& jsonLines) {
  Strings result;
  std::istringstream lines(jsonLines);
  for (std::string line; std::getline(lines, line);) {
    result.push_back(nlohmann::json::parse(line).at("message"));
  }
  return result;
}

TEST_F(Velumctl, ShowsTheRotatedFileBeforeTheLiveOneWithoutSeparators) {
  writeSampleLog();
  const Result result = run({"logs", "show", log_});
  EXPECT_EQ(result.status, 0) << result.errors;
  std::string expected = readFile(folder_ / "app.1.log") + readFile(log_);
  for (std::size_t at = 0; (at = expected.find("\x1E"
                                               "2026")) != std::string::npos;) {
    expected.erase(at, 1);
  }
  EXPECT_EQ(result.output, expected);
  std::filesystem::remove(log_);
  EXPECT_THAT(run({"logs", "show", log_}).output, EndsWith("two\nlines\n"));
}

TEST_F(Velumctl, ShowsOnlyTheRecordsThatWereAskedFor) {
  writeSampleLog();
  const auto shown = [this](const Strings& options) {
    const Result result = run(Strings{"logs", "show", log_, "--json"} + options);
    EXPECT_EQ(result.status, 0) << result.errors;
    return messages(result.output);
  };
  const std::string two = "(Net) two\nlines";
  const std::string three = "(Net: go()) three";
  EXPECT_THAT(shown({"--since", "2026-11-20 09:30", "--until", "2026-11-20 10:00:00"}),
              ElementsAre(two, three));
  EXPECT_THAT(shown({"--level", "warning"}), ElementsAre(two, three));
  EXPECT_THAT(shown({"--subsystem", "a.net", "--level", "error"}), ElementsAre(three));
  EXPECT_EQ(shown({"--subsystem", "a.net", "--subsystem", "a.ui"}).size(), 5U);
  EXPECT_THAT(shown({"--since", "2099-01-01"}), IsEmpty());
  EXPECT_THAT(shown({"--since", "2026-11-21", "--until", "2026-11-19"}), IsEmpty());
  const std::string now = makeRecordPrefix(std::chrono::system_clock::now(), "a.now") + "I: new\n";
  writeFile(log_, record("10:00:00", "a.net", "I: old").replace(1, 4, "2020") + now);
  EXPECT_THAT(shown({"--since", "10m"}), ElementsAre("new"));
}

TEST_F(Velumctl, JsonTakesRecordsApart) {
  writeSampleLog();
  std::istringstream lines(run({"logs", "show", log_, "--json"}).output);
  Strings all;
  for (std::string line; std::getline(lines, line);) all.push_back(line);
  ASSERT_EQ(all.size(), 6U);
  EXPECT_EQ(all[0], R"({"date":null,"process":null,"thread":null,"subsystem":null,"level":null,)"
                    R"("message":"no record"})");
  EXPECT_EQ(all[3], R"({"date":"2026-11-20 10:00:00.000","process":321,"thread":6659,)"
                    R"("subsystem":"a.net","level":"error","message":"(Net: go()) three"})");
  EXPECT_EQ(nlohmann::json::parse(all[4]).at("message"),
            "(Ui: go()) four \uFFFD \x1E \x1B[2J\u009B");
  EXPECT_EQ(nlohmann::json::parse(all[5]).at("level"), nullptr);
}

TEST_F(Velumctl, JsonIsValidWhateverTheLogHolds) {
  // Control characters, what is no text, and across the edges of every buffer line ends, characters
  // of several bytes and the starts of records.
  std::string longText = "x\x01\x7F\"\\\xFF";
  while (longText.size() < 1'300'000) longText += "\n\u20ACx";
  std::string content = record("09:00:00", "a", "I: " + longText);
  Strings expected(30'001, "b");
  expected[0] = longText.replace(5, 1, "\uFFFD");
  for (std::size_t i = 1; i < expected.size(); ++i) content += record("09:00:01", "a", "b");
  writeFile(log_, content);
  EXPECT_TRUE(messages(run({"logs", "show", log_, "--json"}).output) == expected);
}

#ifndef VELUM_SANITIZED
TEST_F(Velumctl, NeedsLittleMemoryForHugeRecords) {
  writeFile(log_, record("09:00:00", "a", std::string(40'000'000, '\xFF')));
  for (const std::string option : {"--json", "--level=verbose"}) {
    auto program = RunningProgram::onTerminal({"/bin/sh", "-c", "exec \"$@\" >/dev/null", "sh",
                                               VELUM_VELUMCTL, "logs", "show", log_, option},
                                              {});
    EXPECT_EQ(program.wait(), 0);
    EXPECT_LT(program.usage().ru_maxrss, 24 * 1024) << "KiB, with " << option;
  }
}
#endif

TEST_F(Velumctl, RejectsWrongUsageInOneLine) {
  writeSampleLog();
  const std::vector<std::pair<Strings, int>> cases{
      {{}, 2},
      {{"logs", "show", log_, "--level", "loud"}, 2},
      {{"logs", "show", log_, "--since", "2026-02-30"}, 2},
      {{"logs", "show", log_, "--since", "25:00"}, 2},
      {{"logs", "show", log_, "--since", "10"}, 2},
      {{"logs", "show", log_, "--follow", "--until", "1m"}, 2},
      {{"logs", "save", log_, folder_ / "out", "--whole", "--since", "1d"}, 2},
      {{"logs", "save", log_, folder_ / "out", "--max-size", "-5"}, 2},
      {{"support", "archive", folder_ / "...zip", "--log", log_}, 2},
      {{"support", "archive", folder_.path() + "/", "--log", log_}, 2},
      {{"support", "archive", folder_ / "\xff.zip", "--log", log_}, 2},
      {{"support", "archive", folder_ / std::string(201, 'a'), "--log", log_}, 2},
      {{"support", "archive", folder_ / "a.zip", "--log", log_, "--include", "name"}, 2},
      {{"keychain", "get", "a"}, 2},
      {{"keychain", "set", "a", "--service", "s"}, 2},
      {{"keychain", "delete", "a", "--service", "s"}, 2},
      {{"defaults", "read", "../x"}, 2},
      {{"defaults", "write", "d", "k"}, 2},
      {{"defaults", "write", "d", "k", "v", "--stdin"}, 2},
      {{"defaults", "write", "d", "k", "5x", "--type", "integer"}, 2},
      {{"defaults", "verify", "d", "--key-item", "a"}, 2},
      {{"storage", "dump", log_}, 2},
      {{"encrypt", "--key-fd", "0"}, 2},
      {{"encrypt", log_, "--key-fd", "-1"}, 2},
      {{"verify-peer", "-5", "--team", "a"}, 2},
      {{"request", "name", "--id", "1", "--prefix", ""}, 2},
      {{"encrypt", log_, "--key-file", log_}, 1},
      {{"decrypt", log_, "--key-file", folder_ / "missing"}, 1},
      {{"storage", "dump", folder_ / "missing", "--key-item", "a", "--service", "s"}, 1},
      {{"logs", "show", folder_ / "missing.log"}, 1},
      {{"support", "archive", folder_ / "a.zip", "--log", folder_ / "missing.log"}, 1},
      {{"support", "archive", folder_ / "a.zip", "--log", log_, "--since", "2020-01-01",
        "--include", "../x=" + log_},
       1},
      {{"support", "archive", folder_ / "a.zip", "--log", log_, "--since", "2020-01-01",
        "--include", "a.net.log=" + log_},
       1},
      {{"support", "archive", log_, "--log", log_}, 1},
      {{"logs", "save", log_, folder_.path(), "--whole", "--max-size", "1"}, 1},
      {{"run", "--", folder_ / "missing"}, 1},
      {{"logs", "show", folder_.path()}, 1},
      {{"logs", "show", "/dev/null"}, 1},
      {{"logs", "save", log_, log_}, 1},
      {{"logs", "save", log_, folder_ / "out", "--subsystem", "nobody"}, 1},
      {{"logs", "reset", folder_ / "missing.log", "--yes"}, 1},
  };
  for (const auto& [arguments, status] : cases) {
    const Result result = run(arguments);
    EXPECT_EQ(result.status, status) << testing::PrintToString(arguments) << result.errors;
    EXPECT_THAT(result.errors, AllOf(StartsWith("velumctl: "), EndsWith("\n")));
    EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
    EXPECT_THAT(result.errors, Not(HasSubstr("velumctl: velumctl:")));
    EXPECT_LT(result.errors.size(), 300U) << result.errors;
    EXPECT_THAT(result.output, IsEmpty());
  }
  EXPECT_THAT(run({"logs", "show", "--help"}).output, HasSubstr("Examples:"));
  EXPECT_EQ(run({"--version"}).status, 0);
}

TEST_F(Velumctl, SavesAndResets) {
  writeSampleLog();
  const std::string out = folder_ / "for support/today";
  Result result = run({"logs", "save", log_, out, "--since", "2026-11-20 10:00", "--json"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_THAT(nlohmann::json::parse(result.output).at("files").get<Strings>(),
              ElementsAre(out + "/a.net.log", out + "/a.ui.log"));
  EXPECT_EQ(readFile(out + "/a.net.log"), record("10:00:00", "a.net", "E: (Net: go()) three"));

  result = run({"logs", "save", log_, out, "--whole", "--max-size", "1k"});
  EXPECT_EQ(result.output, out + "/app.log\n");
  EXPECT_EQ(readFile(out + "/app.log"), readFile(folder_ / "app.1.log") + readFile(log_));

  EXPECT_EQ(run({"logs", "reset", log_}, "y\n").status, 2) << "there is no terminal";
  for (const std::string answer : {"n\n", "y\n"}) {
    ASSERT_THAT(readFile(log_), HasSubstr("three"));
    EXPECT_EQ(answered({"logs", "reset", log_}, answer).status, answer == "y\n" ? 0 : 1) << answer;
  }
  EXPECT_THAT(readFile(log_), AllOf(HasSubstr("reset"), Not(HasSubstr("three"))));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "app.1.log"));
}

TEST_F(Velumctl, FailsWhenItsOutputIsLost) {
  writeSampleLog();
  for (const Strings& arguments :
       {Strings{"--help"}, Strings{"logs", "show", log_},
        Strings{"logs", "save", log_, folder_ / "out", "--whole"}, Strings{"run", "--", "yes"}}) {
    auto program = RunningProgram::piped(
        Strings{"/bin/sh", "-c", "exec \"$@\" 2>&1 >/dev/full", "sh"} + commandLine(arguments));
    EXPECT_THAT(program.readToEnd(), HasSubstr("No space left on device; free some space"));
    EXPECT_EQ(WEXITSTATUS(program.wait()), 1) << arguments.at(0);
  }
}

TEST_F(Velumctl, BearsWhatItInherits) {
  const Result result =
      execute(Strings{"/bin/sh", "-c", R"(trap '' CHLD; exec "$@" 2>&-)", "sh"} +
              commandLine({"run", "--", "sh", "-c", "readlink /proc/$PPID/fd/2; exit 0"}));
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.output, HasSubstr(") /dev/null\n")) << "the next file would be number 2";
}

TEST_F(Velumctl, SaysWhatItWaitsForAndCanBeInterrupted) {
  writeSampleLog();
  UniqueFd other(::open(log_.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
  const std::string out = folder_ / "out";
  const auto started = [](const Strings& arguments) {
    return RunningProgram::onTerminal(commandLine(arguments), {"PAGER=cat"});
  };
  const auto isWaiting = [this](RunningProgram& program) {
    program.readUntil("aiting for another process to release " + log_);
  };
  auto show = started({"logs", "show", log_});
  auto save = started({"logs", "save", log_, out, "--whole"});
  isWaiting(show);
  isWaiting(save);
  save.type("\x03");
  EXPECT_THAT(save.readToEnd(), HasSubstr("cancelled"));
  EXPECT_EQ(WTERMSIG(save.wait()), SIGINT);
  EXPECT_TRUE(std::filesystem::is_empty(out));
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    auto archive = started({"support", "archive", folder_ / "a.zip", "--log", log_});
    isWaiting(archive);
    archive.signal(number);
    EXPECT_THAT(archive.readToEnd(), HasSubstr("cancelled"));
    EXPECT_EQ(WTERMSIG(archive.wait()), number);
    EXPECT_FALSE(std::filesystem::exists(folder_ / "a.zip"));
  }
  other.reset();
  EXPECT_THAT(show.readToEnd(), HasSubstr("five"));
  EXPECT_EQ(show.wait(), 0);
}

TEST_F(Velumctl, ColoursAndTamesTextOnATerminal) {
  writeSampleLog();
  std::string text = onTerminal({"logs", "show", log_}).readToEnd();
  EXPECT_THAT(text, HasSubstr("\x1B[33m2026-11-20 09:30:00.000   321:1a03     [a.net] W: (Net) "
                              "two\x1B[0m\r\n\x1B[33mlines\x1B[0m\r\n"));
  EXPECT_THAT(text, HasSubstr("\x1B[31m2026-11-20 10:00:00.000"));
  EXPECT_THAT(text, AllOf(HasSubstr("four \uFFFD ^^ ^[[2J<9B>"), Not(HasSubstr("\x1B[2J"))));
  text = onTerminal({"logs", "show", log_}, "PAGER=cat", "NO_COLOR=1").readToEnd();
  EXPECT_THAT(text, AllOf(HasSubstr("three"), Not(HasSubstr("\x1B"))));
}

TEST_F(Velumctl, PagesOnATerminal) {
  writeSampleLog();
  const std::string text =
      onTerminal({"logs", "show", log_}, R"(PAGER=sed -n 's/.*th\(ree\)/paged \1/p')").readToEnd();
  EXPECT_THAT(text, AllOf(HasSubstr("paged ree"), Not(HasSubstr("five"))));
  EXPECT_THAT(onTerminal({"logs", "show", log_, "--json"}, "PAGER=true").readToEnd(),
              HasSubstr("five"));

  // A text of many pages; the user leaves at the first. Ctrl-C is the pager's affair.
  std::string content;
  for (int i = 0; i < 50'000; ++i) content += record("09:00:00", "a", fmt::format("I: no {}", i));
  writeFile(log_, content);
  auto less = onTerminal({"logs", "show", log_}, "PAGER");
  less.readUntil("I: no 1");
  less.signal(SIGINT);
  less.type("q");
  EXPECT_THAT(less.readToEnd(), Not(HasSubstr("I: no 40000")));
  EXPECT_EQ(less.wait(), 0);

  auto missing = onTerminal({"logs", "show", log_}, "PAGER=/no/such/pager");
  EXPECT_THAT(missing.readToEnd(), HasSubstr("PAGER"));
  EXPECT_EQ(WEXITSTATUS(missing.wait()), 1);
}

TEST_F(Velumctl, FollowsThroughRotationDeletionAndReset) {
  RotationPolicy policy;
  policy.maxSize = 4000;
  policy.firstCheck = policy.checkInterval = std::chrono::milliseconds(20);
  const auto handler = FileLogHandler::create("a", log_, true, policy, {});
  auto program = RunningProgram::piped(commandLine({"logs", "show", "-f", log_}));
  std::string expected;
  int number = 0;
  for (int round = 0; round < 30; ++round) {
    ASSERT_TRUE(eventually([&] {  // made anew, rotated
      std::error_code error;
      return std::filesystem::file_size(log_, error) < static_cast<std::uintmax_t>(policy.maxSize);
    }));
    if (round % 7 == 3) std::filesystem::remove(log_);
    if (round % 7 == 5) std::filesystem::rename(log_, folder_ / "moved.log");
    if (round == 14) {
      EXPECT_EQ(run({"logs", "reset", log_, "--yes"}).status, 0);
    }
    for (int i = 0; i < 20; ++i) {
      const std::string text = fmt::format("I: record {};", ++number);
      handler->logWithLevel(LogLevel::info, std::chrono::system_clock::now(), text);
      expected += text;
    }
    program.readUntil(fmt::format("record {};", number));
  }
  program.signal(SIGINT);
  const std::string output = program.readToEnd();
  EXPECT_EQ(WTERMSIG(program.wait()), SIGINT);
  std::string actual;
  const std::regex pattern("I: record \\d+;");
  for (std::sregex_iterator it(output.begin(), output.end(), pattern), end; it != end; ++it) {
    actual += it->str();
  }
  EXPECT_EQ(actual, expected);
  EXPECT_THAT(output, HasSubstr("Log file has been rotated"));
}

TEST_F(Velumctl, FollowsALogThatIsYetToComeAndEndsWithItsReader) {
  auto program = RunningProgram::piped(commandLine({"logs", "show", "--follow", log_}));
  writeFile(log_, record("09:00:00", "a", "I: first"));
  program.readUntil("first");
  program.closeOutput();
  writeFile(log_, record("09:00:00", "a", "I: second, longer than the first one"));
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(Velumctl, MakesArchivesWithAProgressBarOnATerminal) {
  writeSampleLog();
  const std::string archive = folder_ / "for support.zip";
  const Strings arguments{
      "support",   "archive",          archive, "--log", log_, "--since", "2026-11-20 10:00",
      "--include", "notes/app=" + log_};
  const Result result = run(arguments);
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output + result.errors, archive + "\n");
  auto list = RunningProgram::piped({"/usr/bin/unzip", "-Z1", archive});
  EXPECT_THAT(list.readToEnd(),
              AllOf(HasSubstr("for support/a.net.log\n"), HasSubstr("for support/notes/app\n")));
  auto program = onTerminal(arguments);
  EXPECT_THAT(program.readToEnd(), AllOf(HasSubstr(" %"), HasSubstr("for support.zip")));
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(Velumctl, RunsToolsThroughTheRunner) {
  Result result =
      run({"run", "--directory", "/usr", "--", "sh", "-c", "pwd; printf 'a  b' >&2; exit 3", "x"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, AllOf(HasSubstr("I: (Process) /usr\n"), HasSubstr(") a  b\n"),
                                   HasSubstr("returned 3")));
  EXPECT_THAT(result.errors, HasSubstr("status 3"));
  result = run({"run", "--json", "--", "printf", "%s", "\xFF--json\n"});
  EXPECT_EQ(result.output, "{\"status\":0,\"output\":\"\uFFFD--json\\n\"}\n");
  result = run({"run", "--json", "--", "sh", "-c", "kill -9 $$"});
  EXPECT_EQ(result.output, "{\"signal\":9,\"output\":\"\"}\n");
  EXPECT_THAT(result.errors, HasSubstr("ended by signal 9"));
}

TEST_F(Velumctl, EndsTheToolWithItsReaderOrASignal) {
  auto program = RunningProgram::piped(commandLine({"run", "--", "yes"}));
  program.readUntil(") y\n");
  program.closeOutput();
  EXPECT_EQ(program.wait(), 0);
  LineReader started(folder_ / "fifo");
  for (const std::string option : {"--directory=/", "--json"}) {
    auto waiting = RunningProgram::piped(commandLine(
        {"run", option, "--", "sh", "-c", "echo $$ > '" + (folder_ / "fifo") + "'; sleep 1000"}));
    const pid_t tool = std::stoi(started.next().value_or("0"));
    waiting.signal(SIGTERM);
    EXPECT_EQ(WTERMSIG(waiting.wait()), SIGTERM);
    EXPECT_EQ(::kill(tool, 0), -1) << "lives on";
  }
}

std::set<std::string> optionsIn(const std::string& help) {
  std::set<std::string> result;
  const std::regex option("\n  (?:-\\w,)?(--[a-z-]+)");
  for (std::sregex_iterator it(help.begin(), help.end(), option), end; it != end; ++it) {
    result.insert((*it)[1]);
  }
  return result;
}

TEST_F(Velumctl, CompletionAndManualKnowEveryOption) {
  const std::string script = VELUM_SOURCE_DIR "/velumctl/completions/velumctl.bash";
  const std::string zsh = readFile(VELUM_SOURCE_DIR "/velumctl/completions/_velumctl");
  const std::string manual = readFile(VELUM_SOURCE_DIR "/docs/velumctl.1");
  const auto complete = [&](const std::string& words) {
    const std::string code = "source '" + script + "'; COMP_WORDS=(velumctl " + words +
                             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _velumctl; "
                             "printf '%s\\n' \"${COMPREPLY[@]}\"";
    auto bash = RunningProgram::piped({"/bin/bash", "-c", code});
    std::istringstream lines(bash.readToEnd());
    return std::set<std::string>(std::istream_iterator<std::string>(lines), {});
  };
  for (const std::string words :
       {"logs show", "logs save", "logs reset", "support archive", "run", "keychain get",
        "keychain set", "keychain delete", "keychain list", "defaults read", "defaults write",
        "defaults verify", "storage dump", "encrypt", "decrypt", "http send", "verify-peer"}) {
    std::istringstream parts(words);
    const Strings command(std::istream_iterator<std::string>(parts), {});
    const auto options = optionsIn(run(command + Strings{"--help"}).output);
    ASSERT_FALSE(options.empty()) << words;
    EXPECT_EQ(complete(words + " --"), options) << words;
    for (const std::string& option : options) {
      EXPECT_THAT(zsh, HasSubstr(option.substr(2))) << words;
      EXPECT_THAT(manual, HasSubstr("Fl " + option.substr(1))) << words;
    }
  }
  EXPECT_THAT(complete("logs s"), ElementsAre("save", "show"));
  EXPECT_THAT(complete("logs show f --level e"), ElementsAre("error"));
  EXPECT_THAT(complete("keychain ''"), ElementsAre("--help", "delete", "get", "list", "set"));
  EXPECT_THAT(complete("defaults write d k --type d"), ElementsAre("data", "double"));
}

}  // namespace
}  // namespace velum::test
