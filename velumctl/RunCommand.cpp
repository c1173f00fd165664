#include <fmt/format.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Velum/Logger/Handlers/StdoutLogHandler.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Process.h"
#include "Velum/String.h"
#include "Velum/SystemUtils.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

struct RunCommandOptions {
  std::vector<std::string> command;
  std::string directory;
  bool json = false;
};

// Prints the records of the run as they are logged.
int runLogged(const std::string& path, velum::RunOptions options) {
  velum::Logger::shared().setHandlers({std::make_shared<velum::StdoutLogHandler>()});
  options.wait = true;
  const auto process = velum::Process::run(path, options);
  if (!process) throw Failure(fmt::format("{} can't be started; the line above says why", path));
  const velum::Termination end = process->waitUntilExit();
  if (end.reason == velum::Termination::Reason::uncaughtSignal) {
    throw Failure(fmt::format("{} was ended by signal {}", path, end.status));
  }
  return end.status;
}

int runCollected(const std::string& path, const velum::RunOptions& options) {
  const auto result = velum::SystemUtil::cliUtil(path, options.args, options.workdir, true);
  if (result.status == velum::SystemUtil::launchFailed) {
    throw Failure(fmt::format("{} can't be started; run it without --json to see why", path));
  }
  nlohmann::ordered_json object;
  object["status"] = result.status;
  object["output"] = velum::repairedUtf8(result.output ? result.output->view() : "");
  std::cout << object.dump() << '\n';
  return result.status;
}

void run(const RunCommandOptions& given) {
  const std::string path = toolPath(given.command.front());
  velum::RunOptions options;
  options.args.assign(given.command.begin() + 1, given.command.end());
  if (!given.directory.empty()) options.workdir = given.directory;
  const int status = given.json ? runCollected(path, options) : runLogged(path, options);
  if (status != 0) {
    throw Failure(fmt::format("{} ended with status {}; see its output", path, status));
  }
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
      "Fails when the tool does.\n\n"
      "Examples:\n"
      "  velumctl run -- ip route show\n"
      "  velumctl run --json --directory /tmp -- /bin/ls -l");
  run.callback([options] { velumctl::run(*options); });
}

}  // namespace velumctl
