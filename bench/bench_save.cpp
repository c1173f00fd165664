// What saving a log costs: two files of 50 MiB, two days of five subsystems.

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Logger/FileLogManager.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/LogSearch.h"
#include "Velum/Logger/LogSplitter.h"
#include "Velum/Platform/FileClone.h"
#include "bench/support/Memory.h"
#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;

constexpr int rounds = 15;
constexpr std::int64_t fileSize = 52'428'800;
constexpr std::int64_t mebibyte = 1'048'576;
constexpr int subsystems = 5;

const velum::LogDate firstDate =
    std::chrono::sys_days(std::chrono::year(2026) / 3 / 10) + std::chrono::hours(0);
const velum::LogDate hourBegin = firstDate + std::chrono::hours(30);
const velum::LogDate hourEnd = hourBegin + std::chrono::minutes(59) + std::chrono::seconds(59);

// One file of records, a day's worth from `date` on.
std::int64_t writeLog(const std::string& path, velum::LogDate date) {
  const std::string fill(90, 'm');
  const std::int64_t perRecord = 160;
  const auto step = std::chrono::nanoseconds(std::chrono::hours(24)) / (fileSize / perRecord);
  std::ofstream file(path, std::ios::binary);
  std::int64_t size = 0;
  for (int number = 0; size < fileSize; ++number, date += step) {
    std::string record =
        velum::makeRecordPrefix(std::chrono::time_point_cast<velum::LogDate::duration>(date),
                                fmt::format("com.quillon.part{}", number % subsystems));
    record += fmt::format("I: (bench) {} {}\n", number, fill);
    size += static_cast<std::int64_t>(record.size());
    file << record;
  }
  return size;
}

double command(const std::string& script) {
  return bench::timed([&] { bench::Process({"/bin/sh", "-c", script}).wait(); });
}

std::string emptied(const std::string& folder) {
  fs::remove_all(folder);
  fs::create_directory(folder);
  return folder;
}

// The scripts write each subsystem's records of the hour into a file of its own.
std::string awkScript(const std::string& files, const std::string& out) {
  return fmt::format(
      R"(awk -v RS='\036' '{{ d = substr($0, 1, 13) }} d == "2026-03-11 06" )"
      R"({{ printf "\036%s", $0 > ("{}/" substr($4, 2, length($4) - 2) ".log") }}' {})",
      out, files);
}

std::string grepScript(const std::string& files, const std::string& out) {
  std::string script;
  for (int part = 0; part < subsystems; ++part) {
    script += fmt::format(
        "LC_ALL=C grep -ah '^.2026-03-11 06:' {0} | LC_ALL=C grep -aF '[com.quillon.part{1}]' "
        "> {2}/{1}.log; ",
        files, part, out);
  }
  return script;
}

std::string pythonScript(const std::string& rotated, const std::string& live,
                         const std::string& out) {
  return fmt::format(
      "exec python3 -c '\n"
      "out = {{}}\n"
      "for path in (\"{}\", \"{}\"):\n"
      "  for r in open(path, \"rb\").read().split(b\"\\x1e\")[1:]:\n"
      "    if r[:13] == b\"2026-03-11 06\":\n"
      "      out.setdefault(r[r.index(b\"[\") + 1:r.index(b\"]\")], []).append(r)\n"
      "for name, records in out.items():\n"
      "  open(\"{}/\" + name.decode(), \"wb\").write(b\"\\x1e\" + b\"\\x1e\".join(records))\n'",
      rotated, live, out);
}

struct Split {
  std::int64_t bytesRead = 0;
  std::int64_t rangeSize = 0;
};

Split split(const std::vector<std::string>& files, const std::string& out,
            std::optional<velum::LogDate> begin, std::optional<velum::LogDate> end) {
  Split result;
  const auto all = velum::LogSubsystemSelector::all();
  velum::LogSplitter splitter(out, all, "bench");
  for (const std::string& file : files) {
    velum::LogReader reader(file, "bench");
    const velum::LogRange range = velum::LogSearch(reader).range(begin, end);
    if (!range.isEmpty()) {
      splitter.add(reader, range);
      result.rangeSize += range.end - range.begin;
    }
    result.bytesRead += reader.bytesRead();
  }
  splitter.finish();
  return result;
}

void plainCopy(const std::vector<std::string>& files, const std::string& target) {
  std::vector<char> buffer(static_cast<std::size_t>(mebibyte));
  std::ofstream out(target, std::ios::binary);
  for (const std::string& file : files) {
    std::ifstream in(file, std::ios::binary);
    while (in.read(buffer.data(), mebibyte) || in.gcount() > 0)
      out.write(buffer.data(), in.gcount());
  }
}

}  // namespace

int main() {
  const bench::TemporaryFolder folder;
  const std::string live = folder / "name.log";
  const std::string rotated = folder / "name.1.log";
  const std::string out = folder / "out";
  const std::vector<std::string> files{rotated, live};
  const std::string both = rotated + ' ' + live;
  writeLog(rotated, firstDate);
  writeLog(live, firstDate + std::chrono::hours(24));
  const velum::FileLogManager manager(live);
  emptied(out);

  std::int64_t memory = bench::peakMemory([&] { manager.saveWholeLog(out); });
  memory = std::max(memory, bench::peakMemory([&] {
                      manager.saveLogs(velum::LogSubsystemSelector::all(), out, {});
                    }));

  const bench::Run whole = [&] {
    emptied(out);
    return bench::timed([&] { manager.saveWholeLog(out); });
  };
  const bench::Run copy = [&] {
    emptied(out);
    return command("exec cp --reflink=auto " + both + ' ' + out);
  };
  auto times = bench::interleaved(rounds, {whole, copy});
  bench::report("whole log, 2 x 50 MiB", times[0], "cp --reflink=auto of both", times[1], {1.2});

  const bench::Run lastPart = [&] {
    emptied(out);
    return bench::timed([&] { manager.saveWholeLog(out, 5 * mebibyte); });
  };
  const bench::Run tail = [&] {
    emptied(out);
    return command(fmt::format("exec tail -c {} {} > {}/name.log", 5 * mebibyte, live, out));
  };
  times = bench::interleaved(rounds, {lastPart, tail});
  bench::report("last 5 MiB", times[0], "tail -c", times[1], {1.2});

  Split counted;
  const bench::Run hour = [&] {
    emptied(out);
    return bench::timed([&] { counted = split(files, out, hourBegin, hourEnd); });
  };
  const bench::Run awk = [&] { return command(awkScript(both, emptied(out))); };
  const bench::Run grep = [&] { return command(grepScript(both, emptied(out))); };
  const bench::Run python = [&] { return command(pythonScript(rotated, live, emptied(out))); };
  times = bench::interleaved(rounds, {hour, awk, grep, python});
  bench::report("one hour of two days, split", times[0], "awk", times[1], {0.1});
  bench::report("the same", times[0], "grep pipeline", times[2], {0.1});
  bench::report("the same", times[0], "Python", times[3], {0.1});
  const std::int64_t most = counted.rangeSize + 40 * mebibyte;
  bench::report("bytes read for it",
                fmt::format("{:.1f} MiB", double(counted.bytesRead) / mebibyte),
                fmt::format("range {:.1f} MiB", double(counted.rangeSize) / mebibyte),
                "range + 40 MiB", counted.bytesRead <= most);

  const bench::Run wholeCall = [&] {
    emptied(out);
    return bench::timed([&] {
      manager.saveLogs(velum::LogSubsystemSelector::all(), out,
                       {.startDate = hourBegin, .endDate = hourEnd, .maxSize = {}});
    });
  };
  const bench::Run clones = [&] {
    emptied(out);
    return bench::timed([&] {
      for (const std::string& file : files) {
        velum::cloneFile(file, out + '/' + fs::path(file).filename().string());
      }
    });
  };
  times = bench::interleaved(rounds, {wholeCall, clones});
  bench::report("one hour, whole call", times[0], "the two clones alone", times[1], {1.3});

  const bench::Run fullSplit = [&] {
    emptied(out);
    return bench::timed([&] { split(files, out, std::nullopt, std::nullopt); });
  };
  const bench::Run plain = [&] {
    emptied(out);
    return bench::timed([&] { plainCopy(files, out + "/name.log"); });
  };
  times = bench::interleaved(rounds, {fullSplit, plain});
  bench::report("full range, split", times[0], "plain read and write", times[1], {1.5});

  bench::report("memory of a save", fmt::format("{:.1f} MiB", double(memory) / mebibyte), "idle",
                "<= 8 MiB", memory <= 8 * mebibyte);
}
