#include <fmt/format.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <future>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Base/String.h"
#include "Velum/Logger/LogManager.h"
#include "Velum/SupportUtils.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Interruption.h"
#include "velumctl/LogFile.h"
#include "velumctl/Moments.h"
#include "velumctl/ProgressBar.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using ArchivingError = velum::SupportLogArchivingError;

struct ArchiveOptions {
  std::string archive;
  std::string log;
  std::string purpose = "report";
  std::string since;
  std::vector<std::string> includes;
  bool reveal = false;
  bool json = false;
};

velum::SupportItems parsedItems(const std::vector<std::string>& includes) {
  velum::SupportItems items;
  for (const std::string& include : includes) {
    const std::size_t equals = include.find('=');
    if (equals == 0 || equals == std::string::npos || equals + 1 == include.size()) {
      throw UsageError(fmt::format("\"{}\" is not an item; write --include NAME=PATH", include));
    }
    const std::string name = include.substr(0, equals);
    if (!items.emplace(name, velum::FileUrl{include.substr(equals + 1)}).second) {
      throw UsageError(fmt::format("\"{}\" is included twice; choose another name", name));
    }
  }
  return items;
}

/// The archive's name is that of its one folder as well.
void checkName(const std::string& archive) {
  constexpr std::size_t longest = 200;  // leaves room for what temporary names add
  const std::filesystem::path path(archive);
  const std::string name = path.filename().string();
  const std::string stem = path.stem().string();
  if (stem.empty() || stem == "." || stem == "..") {
    throw UsageError(fmt::format("\"{}\" does not name a file; write FOLDER/NAME.zip", archive));
  }
  if (name.size() > longest) {
    throw UsageError(fmt::format("the archive's name is too long; use at most {} bytes", longest));
  }
  if (!velum::isValidUtf8(name)) {
    throw UsageError("the archive's name is not valid UTF-8; choose another name");
  }
}

[[noreturn]] void report(const std::exception_ptr& error) try {
  std::rethrow_exception(error);
} catch (const ArchivingError& failure) {
  switch (failure.reason()) {
    case ArchivingError::Case::cancelled:
      throw Failure("cancelled; no archive was made");
    case ArchivingError::Case::compressLogFolder:
      throw Failure("the archive can't be packed; see that zip is installed and the disk has room");
    case ArchivingError::Case::createTempFolderFailed:
      throw Failure(fmt::format("{}; set TMPDIR to a folder you may write to", failure.what()));
    default:
      throw Failure(failure.what());
  }
}

// What went wrong.
std::exception_ptr makeArchive(const ArchiveOptions& options, velum::SupportItems items,
                               velum::SupportLogsPurpose purpose,
                               std::optional<velum::LogDate> since) {
  std::shared_ptr<velum::Progress> progress;
  Interruption interruption;
  auto end = std::make_shared<std::promise<std::exception_ptr>>();
  auto error = end->get_future();
  progress = velum::SupportUtils::createArchive(
      options.archive, std::move(items), purpose, since, options.reveal,
      [end](std::exception_ptr failure) { end->set_value(std::move(failure)); });
  interruption.cancels(*progress);
  waitWithBar(error, isTerminal(STDERR_FILENO), [&] { return progress->fractionCompleted(); });
  return error.get();
}

void archive(const ArchiveOptions& options) {
  checkName(options.archive);
  velum::SupportItems items = parsedItems(options.includes);
  std::optional<velum::LogDate> since;
  if (!options.since.empty()) since = parsedMoment(options.since, velum::LogDate::clock::now());
  const auto purpose = options.purpose == "report" ? velum::SupportLogsPurpose::report
                                                   : velum::SupportLogsPurpose::diagnosis;
  sizeOfLog(options.log);
  showWarnings();
  velum::LogManager::shared().setLogPath(options.log);
  const std::exception_ptr failure = makeArchive(options, std::move(items), purpose, since);
  if (failure) report(failure);
  if (options.json) {
    std::cout << nlohmann::json{{"archive", velum::repairedUtf8(options.archive)}}.dump() << '\n';
  } else {
    std::cout << options.archive << '\n';
  }
}

}  // namespace

void addSupportArchive(CLI::App& support) {
  auto options = std::make_shared<ArchiveOptions>();
  CLI::App& archive = *support.add_subcommand("archive", "Make a zip file to send to support");
  archive.add_option("ARCHIVE", options->archive, "The zip file; replaced when it is there")
      ->required();
  archive.add_option("--log", options->log, "The live log file")->required()->type_name("FILE");
  archive
      .add_option("--purpose", options->purpose,
                  "report: the last two days, at most 30 MiB of each log; diagnosis: the last day")
      ->type_name("PURPOSE")
      ->check(CLI::IsMember({"report", "diagnosis"}));
  archive
      .add_option("--since", options->since,
                  std::string("Logs from then on instead: ") + momentHelp)
      ->type_name("MOMENT");
  archive.add_option("--include", options->includes, "A file or folder to add; may be repeated")
      ->type_name("NAME=PATH")
      ->allow_extra_args(false);
  archive.add_flag("--reveal", options->reveal, "Show the archive in the file viewer");
  archive.add_flag("--json", options->json, "Print {\"archive\": path}");
  archive.footer(
      "Ctrl-C ends it and leaves nothing behind.\n\n"
      "Examples:\n"
      "  velumctl support archive vpn.zip --log vpn.log\n"
      "  velumctl support archive vpn.zip --log vpn.log --purpose diagnosis --since 2h \\\n"
      "    --include settings.plist=$HOME/.config/vpn/defaults.plist");
  archive.callback([options] { velumctl::archive(*options); });
}

}  // namespace velumctl
