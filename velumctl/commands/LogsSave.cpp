#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Velum/Base/Progress.h"
#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Logger/FileLogManager.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Interruption.h"
#include "velumctl/LogFile.h"
#include "velumctl/Moments.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

struct SaveOptions {
  std::string file;
  std::string folder;
  std::string since;
  std::string until;
  std::vector<std::string> subsystems;
  std::optional<std::uint64_t> maxSize;
  bool whole = false;
  bool json = false;
};

velum::LogSavingOpts savingOptions(const SaveOptions& options) {
  const velum::LogDate now = velum::LogDate::clock::now();
  velum::LogSavingOpts result;
  if (!options.since.empty()) result.startDate = parsedMoment(options.since, now);
  if (!options.until.empty()) result.endDate = parsedMoment(options.until, now);
  if (options.maxSize) {
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    result.maxSize = static_cast<std::int64_t>(std::min(*options.maxSize, most));
  }
  return result;
}

velum::LogSubsystemSelector selector(const SaveOptions& options) {
  using Selector = velum::LogSubsystemSelector;
  if (options.whole) return Selector::whole();
  return options.subsystems.empty() ? Selector::all() : Selector::some(options.subsystems);
}

std::vector<std::string> savedFiles(const SaveOptions& options,
                                    const velum::LogSavingOpts& opts) try {
  velum::Progress progress(1);
  const Interruption interruption(progress);
  return velum::FileLogManager(options.file)
      .saveLogs(selector(options), options.folder, opts, &progress);
} catch (const velum::SystemError& error) {
  if (error.code() != ECANCELED) throw;
  throw Failure("cancelled; nothing was saved");
}

void save(const SaveOptions& options) {
  showWarnings();
  const velum::LogSavingOpts opts = savingOptions(options);
  sizeOfLog(options.file);
  std::error_code error;
  std::filesystem::create_directories(options.folder, error);
  if (error) throw velum::SystemError(error.value(), options.folder);
  const auto files = savedFiles(options, opts);
  if (options.json) {
    nlohmann::json object;
    object["files"] = nlohmann::json::array();
    for (const std::string& file : files) object["files"].push_back(velum::repairedUtf8(file));
    std::cout << object.dump() << '\n';
  } else {
    for (const std::string& file : files) std::cout << file << '\n';
  }
  if (files.empty()) {
    throw Failure(
        "the log holds no such records; widen --since and --until, or name another "
        "--subsystem");
  }
}

void reset(const std::string& file, bool yes) {
  const std::int64_t size = sizeOfLog(file);
  if (!yes) {
    if (!isTerminal(STDIN_FILENO) || !isTerminal(STDERR_FILENO)) {
      throw UsageError("there is no terminal to ask on; say --yes to empty the log");
    }
    const std::string question =
        fmt::format("Empty {} ({:.1f} MiB) and remove its rotated file for good?", file,
                    static_cast<double>(size) / (1024 * 1024));
    if (!isConfirmed(question)) throw Failure("nothing was changed; answer y to empty the log");
  }
  showWarnings();
  velum::FileLogManager(file).resetLog();
}

}  // namespace

void addLogsSave(CLI::App& logs) {
  auto options = std::make_shared<SaveOptions>();
  CLI::App& save = *logs.add_subcommand("save", "Save a log into files for support");
  save.add_option("FILE", options->file, "The live log file; its rotated predecessor counts too")
      ->required();
  save.add_option("FOLDER", options->folder, "Where the files go; made when it is not there")
      ->required();
  auto* const since =
      save.add_option("--since", options->since, std::string("Records from then on: ") + momentHelp)
          ->type_name("MOMENT");
  auto* const until =
      save.add_option("--until", options->until, "Records up to then")->type_name("MOMENT");
  auto* const subsystem =
      save.add_option("--subsystem", options->subsystems, "Only this subsystem's; may be repeated")
          ->type_name("NAME")
          ->allow_extra_args(false);
  save.add_option("--max-size", options->maxSize, "Only the newest bytes: 500k, 30M, 1G")
      ->type_name("SIZE")
      ->transform(CLI::AsSizeValue(false))
      ->check([](const std::string& size) {
        return size.starts_with('-') ? "a size can't be negative" : std::string();
      });
  save.add_flag("--whole", options->whole, "One file with everything, not one per subsystem")
      ->excludes(since)
      ->excludes(until)
      ->excludes(subsystem);
  save.add_flag("--json", options->json, "Print the saved paths as {\"files\": [...]}");
  save.footer(
      "Prints the paths of the saved files. Files of the same names are replaced, but none of the\n"
      "log itself. Ctrl-C leaves nothing behind.\n\n"
      "Examples:\n"
      "  velumctl logs save vpn.log ~/for-support --since 2d\n"
      "  velumctl logs save vpn.log ~/for-support --whole --max-size 30M");
  save.callback([options] { velumctl::save(*options); });
}

void addLogsReset(CLI::App& logs) {
  struct ResetOptions {
    std::string file;
    bool yes = false;
  };
  auto options = std::make_shared<ResetOptions>();
  CLI::App& reset = *logs.add_subcommand("reset", "Empty a log and remove its rotated file");
  reset.add_option("FILE", options->file, "The live log file")->required();
  reset.add_flag("-y,--yes", options->yes, "Do not ask");
  reset.footer(
      "Asks first; without a terminal --yes must say so. Programs that write the log go on.\n\n"
      "Examples:\n"
      "  velumctl logs reset vpn.log\n"
      "  velumctl logs reset vpn.log --yes");
  reset.callback([options] { velumctl::reset(options->file, options->yes); });
}

}  // namespace velumctl
