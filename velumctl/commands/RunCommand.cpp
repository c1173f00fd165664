#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Process.h"
#include "Velum/SystemUtils.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Interruption.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

struct RunCommandOptions {
  std::vector<std::string> command;
  std::string directory;
  bool json = false;
};

void check(const std::string& path, const velum::Termination& end) {
  if (end == velum::Termination{}) return;
  const bool isExit = end.reason == velum::Termination::Reason::exit;
  throw Failure(fmt::format("{} {}{}", path, end.text(), isExit ? "; see its output" : ""));
}

// Prints the records of the run as they are logged, until that fails or a signal comes.
class PrintedLog final : public velum::LogHandlerProtocol {
 public:
  void logWithLevel(velum::LogLevel /*level*/, velum::LogDate /*date*/,
                    std::string_view text) override try {
    if (!error_) print(std::string(text) + '\n');
  } catch (const velum::SystemError& error) {
    error_ = error;
  }

  const std::optional<velum::SystemError>& error() const { return error_; }

 private:
  // A pipe takes that much without blocking once it takes anything: no signal has to wait for a
  // reader that reads no more.
  static constexpr std::size_t most = PIPE_BUF;

  static void print(std::string_view bytes) {
    for (; !bytes.empty() && isWritable(); bytes.remove_prefix(std::min(most, bytes.size()))) {
      velum::checked::write(STDOUT_FILENO, bytes.data(), std::min(most, bytes.size()), "velumctl");
    }
  }

  static bool isWritable() {
    constexpr int step = 100;  // milliseconds
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    // When the end is asked for, up to a pipe full of lines may still be on their way here.
    while (::poll(&output, 1, Interruption::isAsked() ? 0 : step) <= 0) {
      if (Interruption::isAsked()) return false;
    }
    return true;
  }

  std::optional<velum::SystemError> error_;
};

void failIfAsked(const std::string& path) {
  if (Interruption::isAsked()) throw Failure(fmt::format("cancelled; {} was ended", path));
}

void runLogged(const std::string& path, velum::RunOptions options) {
  const auto printed = std::make_shared<PrintedLog>();
  velum::Logger::shared().setHandlers({printed});
  const Interruption interruption;
  options.wait = true;
  options.keepRunning = [&](pid_t) { return !Interruption::isAsked() && !printed->error(); };
  const auto process = velum::Process::run(path, options);
  failIfAsked(path);
  if (printed->error() && printed->error()->code() == EPIPE) return;
  // NOLINTNEXTLINE(cert-err*,misc-throw-by-value-catch-by-reference): the one that was caught
  if (printed->error()) throw *printed->error();
  if (!process) throw Failure(fmt::format("{} can't be started; the line above says why", path));
  check(path, process->waitUntilExit());
}

velum::CliResult collected(const std::string& path, const velum::RunOptions& options) {
  const Interruption interruption;
  auto result = velum::SystemUtil::cliUtil(
      path, options.args,
      velum::CliOptions{.currentDirPath = options.workdir,
                        .output = true,
                        .keepRunning = [](pid_t) { return !Interruption::isAsked(); }});
  failIfAsked(path);
  return result;
}

void runCollected(const std::string& path, const velum::RunOptions& options) {
  const velum::CliResult result = collected(path, options);
  if (result.status == velum::SystemUtil::launchFailed) {
    throw Failure(fmt::format("{} can't be started; run it without --json to see why", path));
  }
  nlohmann::ordered_json object;
  object[result.isSignal ? "signal" : "status"] = result.status;
  object["output"] = velum::repairedUtf8(result.output ? result.output->view() : "");
  std::cout << object.dump() << '\n';
  using Reason = velum::Termination::Reason;
  check(path, {result.status, result.isSignal ? Reason::uncaughtSignal : Reason::exit});
}

void run(const RunCommandOptions& given) {
  const std::string path = toolPath(given.command.front());
  velum::RunOptions options;
  options.args.assign(given.command.begin() + 1, given.command.end());
  if (!given.directory.empty()) options.workdir = given.directory;
  given.json ? runCollected(path, options) : runLogged(path, options);
}

}  // namespace

void addRun(CLI::App& app) {
  auto options = std::make_shared<RunCommandOptions>();
  CLI::App& run = *app.add_subcommand("run", "Run a tool and print what would be logged of it");
  run.add_option("TOOL", options->command, "The tool and its arguments, behind \"--\"")
      ->required()
      ->type_name("");
  run.add_option("--directory", options->directory, "The tool's working directory")
      ->type_name("FOLDER");
  run.add_flag("--json", options->json, R"(Print {"status": ..., "output": ...} at the end)");
  run.footer(
      "The tool has no input and no terminal. Fails when it does, and ends it with Ctrl-C or when "
      "nobody reads the output any more.\n\n"
      "Examples:\n"
      "  velumctl run -- ip route show\n"
      "  velumctl run --json --directory /tmp -- /bin/ls -l");
  run.callback([options] { velumctl::run(*options); });
}

}  // namespace velumctl
