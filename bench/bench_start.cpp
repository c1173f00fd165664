// What the helper costs while it waits: its start until it watches, its memory, its wake-ups.
//
//   bench_start [--short]    counts wake-ups for 10 seconds instead of 60

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

using std::chrono::seconds;

constexpr int rounds = 40;
constexpr long mostMemory = 8192;  // KiB
constexpr long mostWakeUps = 3;

// The number behind `key` in one of /proc's status files.
long statusValue(const std::filesystem::path& file, std::string_view key) {
  std::ifstream status(file);
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key)) return std::stol(line.substr(key.size() + 1));
  }
  return -1;
}

std::filesystem::path folderOf(const bench::Process& process) {
  return std::filesystem::path("/proc") / std::to_string(process.id());
}

long peakMemory(const bench::Process& process) {
  return statusValue(folderOf(process) / "status", "VmHWM");
}

// How often the threads went to sleep by themselves, which is how often they were woken.
long sleeps(const bench::Process& process) {
  long sum = 0;
  for (const auto& task : std::filesystem::directory_iterator(folderOf(process) / "task")) {
    sum += statusValue(task.path() / "status", "voluntary_ctxt_switches");
  }
  return sum;
}

double timeToStart(const std::string& program, const std::string& what,
                   const std::string& process) {
  std::unique_ptr<bench::Process> started;
  return bench::timed([&] { started = bench::startReady({program, what, process}); });
}

void reportMemory(const std::string& watched) {
  const auto helper = bench::startReady({BENCH_HELPER, BENCH_BUNDLE, watched});
  const auto bare = bench::startReady({BENCH_BARE, BENCH_APPLICATION, watched});
  std::this_thread::sleep_for(seconds(1));
  const long peak = peakMemory(*helper);
  bench::report("peak memory of the waiting helper", std::to_string(peak) + " KiB",
                "bare program: " + std::to_string(peakMemory(*bare)) + " KiB", "<= 8192",
                peak > 0 && peak <= mostMemory);
}

void reportWakeUps(const std::string& watched, seconds time) {
  const auto helper = bench::startReady({BENCH_HELPER, BENCH_BUNDLE, watched});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // until it has fallen asleep
  const long before = sleeps(*helper);
  std::this_thread::sleep_for(time);
  const long count = sleeps(*helper) - before;
  bench::report("wake-ups while waiting " + std::to_string(time.count()) + " s",
                std::to_string(count), "-", "<= 3", before > 0 && count <= mostWakeUps);
}

}  // namespace

int main(int count, char** arguments) {
  const bool isShort = count > 1 && std::string_view(arguments[1]) == "--short";
  const bench::TemporaryFolder folder;
  bench::isolateEnvironment(folder.path());
  const bench::Process application({BENCH_APPLICATION});
  const std::string watched = std::to_string(application.id());

  const auto times = bench::interleaved(
      rounds, {[&] { return timeToStart(BENCH_HELPER, BENCH_BUNDLE, watched); },
               [&] { return timeToStart(BENCH_BARE, BENCH_APPLICATION, watched); }});
  bench::report("helper's start until it watches", times[0], "bare program", times[1], {3});
  reportMemory(watched);
  reportWakeUps(watched, seconds(isShort ? 10 : 60));
}
