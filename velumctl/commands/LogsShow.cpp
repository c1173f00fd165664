#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/LogSearch.h"
#include "velumctl/Commands.h"
#include "velumctl/LogFile.h"
#include "velumctl/LogFollower.h"
#include "velumctl/Moments.h"
#include "velumctl/RecordPrinter.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using velum::LogDate;

struct ShowOptions {
  std::string file;
  bool follow = false;
  bool json = false;
  std::string since;
  std::string until;
  std::vector<std::string> subsystems;
  std::string level;
};

std::optional<LogDate> optionalMoment(const std::string& text) {
  if (text.empty()) return std::nullopt;
  return parsedMoment(text, LogDate::clock::now());
}

std::unique_ptr<RecordSink> makePrinter(Output& output, bool json) {
  if (json) return std::make_unique<JsonPrinter>(output);
  using Style = TextPrinter::Style;
  const Style style = !isTerminal(STDOUT_FILENO) ? Style::plain
                      : wantsColour()            ? Style::colour
                                                 : Style::terminal;
  return std::make_unique<TextPrinter>(output, style);
}

// What is there now.
void showFiles(LogFiles& files, RecordParser& parser, Output& output) {
  std::vector<char> buffer(velum::LogReader::bufferSize);
  if (files.rotated) drain(*files.rotated, buffer, parser);
  if (files.live) drain(*files.live, buffer, parser);
  output.flush();
}

void print(const ShowOptions& options, LogFiles files, int descriptor) {
  Output output(descriptor);
  const auto printer = makePrinter(output, options.json);
  RecordFilter filter(*printer, options.subsystems, velum::logLevel(options.level));
  RecordParser parser(filter);
  if (!options.follow) {
    showFiles(files, parser, output);
    return;
  }
  auto live = std::exchange(files.live, std::nullopt);
  showFiles(files, parser, output);
  std::make_shared<LogFollower>(options.file, std::move(live), parser, [&output] {
    output.flush();
  })->run();
}

void show(const ShowOptions& options) try {
  LogFiles files = openLog(options.file, optionalMoment(options.since),
                           optionalMoment(options.until), options.follow);
  const bool isPaged = !options.follow && !options.json;
  std::optional<Pager> pager = isPaged ? Pager::start() : std::nullopt;
  try {
    print(options, std::move(files), pager ? pager->descriptor() : STDOUT_FILENO);
  } catch (const velum::SystemError& error) {
    if (error.code() != EPIPE) throw;
  }
  if (pager) pager->finish();
} catch (const velum::SystemError& error) {
  if (error.code() != EPIPE) throw;
}

}  // namespace

void addLogsShow(CLI::App& logs) {
  auto options = std::make_shared<ShowOptions>();
  CLI::App& show = *logs.add_subcommand("show", "Print a log's records, oldest first");
  show.add_option("FILE", options->file, "The live log file; its rotated predecessor is read too")
      ->required();
  auto* const follow =
      show.add_flag("-f,--follow", options->follow, "Then wait for more, until Ctrl-C");
  show.add_option("--since", options->since, std::string("Records from then on: ") + momentHelp)
      ->type_name("MOMENT");
  show.add_option("--until", options->until, "Records up to then, written likewise")
      ->type_name("MOMENT")
      ->excludes(follow);
  show.add_option("--subsystem", options->subsystems, "Only this subsystem's; may be repeated")
      ->type_name("NAME")
      ->allow_extra_args(false);
  show.add_option("--level", options->level, "Only records of at least this level")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({"verbose", "debug", "info", "warning", "error"}));
  show.add_flag("--json", options->json,
                "One object per line: date, process, thread, subsystem, level, message");
  show.footer(
      "On a terminal the text is coloured (unless NO_COLOR is set) and paged by PAGER, or less.\n\n"
      "Examples:\n"
      "  velumctl logs show vpn.log --since 10m --level warning\n"
      "  velumctl logs show vpn.log --since \"2026-11-21 09:00\" --until \"2026-11-21 10:00\"\n"
      "  velumctl logs show vpn.log --follow --since 1m --subsystem com.example.vpn.tunnel\n"
      "  velumctl logs show vpn.log --json | jq -r 'select(.level == \"error\").message'");
  show.callback([options] { velumctl::show(*options); });
}

}  // namespace velumctl
