// What it costs to take a tool's output: a gigabyte of bytes, and a million lines.

#include <fmt/format.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Process.h"
#include "Velum/SystemUtils.h"
#include "bench/support/Table.h"

namespace {

constexpr int byteRounds = 7;
constexpr int lineRounds = 15;
constexpr std::size_t outputSize = std::size_t{1} << 30;
constexpr double lineCount = 1e6;
constexpr const char* python = "/usr/bin/python3";

double gigabyteThroughCliUtil() {
  velum::CliResult result;  // freed outside of the measurement, as in Python's
  return bench::timed([&] {
    result = velum::SystemUtil::cliUtil("/usr/bin/head", {"-c", "1G", "/dev/zero"}, {}, true);
    if (!result.output || result.output->size() != outputSize) {
      throw velum::SystemError(EIO, "head");
    }
  });
}

// Without the start of the interpreter: it says itself how long the call took.
double gigabyteThroughPython(std::string_view call) {
  const std::string program = fmt::format(
      "import subprocess, time\n"
      "tool = ['/usr/bin/head', '-c', '1G', '/dev/zero']\n"
      "start = time.monotonic_ns()\n"
      "output = {}\n"
      "print(time.monotonic_ns() - start, len(output))\n",
      call);
  const velum::CliResult result = velum::SystemUtil::cliUtil(python, {"-c", program}, {}, true);
  const std::string text(result.output ? result.output->view() : std::string_view());
  if (!text.ends_with(fmt::format(" {}\n", outputSize))) throw velum::SystemError(EIO, text);
  return std::strtod(text.c_str(), nullptr);
}

// Takes records and does nothing with them.
struct Nowhere final : velum::LogHandlerProtocol {
  void logWithLevel(velum::LogLevel /*level*/, velum::LogDate /*date*/,
                    std::string_view text) override {
    size += text.size();
  }
  std::size_t size = 0;
};

double linesThroughRun() {
  return bench::timed([] {
    const auto tool = velum::Process::run("/usr/bin/seq", {.args = {"1000000"}, .wait = true});
    if (!tool || tool->termination() != velum::Termination{}) throw velum::SystemError(EIO, "seq");
  });
}

// The plain way to the same end.
double linesThroughGetline() {
  struct Close {
    void operator()(FILE* pipe) const { ::pclose(pipe); }
  };
  struct Free {
    void operator()(char* bytes) const { std::free(bytes); }  // NOLINT(*-no-malloc)
  };
  return bench::timed([] {
    const std::unique_ptr<FILE, Close> pipe(::popen("exec /usr/bin/seq 1000000", "r"));  // NOLINT
    char* buffer = nullptr;
    std::size_t capacity = 0;
    double lines = 0;
    for (ssize_t size = 0; (size = ::getline(&buffer, &capacity, pipe.get())) > 0; ++lines) {
      velum::logInfo({"lines"}, "{}", std::string_view(buffer, static_cast<std::size_t>(size - 1)));
    }
    const std::unique_ptr<char, Free> owner(buffer);
    if (lines != lineCount) throw velum::SystemError(EIO, "seq");
  });
}

long peakMemory() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;  // KiB
}

void reportMemory() {
  const long before = peakMemory();
  const auto tool = velum::Process::run("/usr/bin/seq", {.args = {"20000000"}, .wait = true});
  const long growth = peakMemory() - before;
  bench::report("memory of run for 20,000,000 more lines", fmt::format("{} KiB", growth),
                "of 169 MB output", "<= 64 KiB", tool && growth <= 64);
}

}  // namespace

int main() {
  velum::Logger::shared().setHandlers({std::make_shared<Nowhere>()});
  // First, while the peak is not that of a gigabyte.
  const auto logged = bench::interleaved(lineRounds, {linesThroughRun, linesThroughGetline});
  bench::report("a line through run, logged", logged[0], "popen, getline, log call", logged[1], {1},
                lineCount);
  velum::Logger::shared().setLogLevel(velum::LogLevel::warning);
  const auto dropped = bench::interleaved(lineRounds, {linesThroughRun, linesThroughGetline});
  bench::report("a line through run, filtered out", dropped[0], "popen, getline, log call",
                dropped[1], {1}, lineCount);
  reportMemory();

  const bench::Run checkOutput = [] {
    return gigabyteThroughPython("subprocess.check_output(tool, stderr=subprocess.STDOUT)");
  };
  const bench::Run captureOutput = [] {
    return gigabyteThroughPython("subprocess.run(tool, capture_output=True).stdout");
  };
  const auto bytes =
      bench::interleaved(byteRounds, {gigabyteThroughCliUtil, checkOutput, captureOutput});
  bench::report("1 GiB of output through cliUtil", bytes[0], "Python, check_output", bytes[1], {1});
  bench::report("1 GiB of output through cliUtil", bytes[0], "Python, run", bytes[2], {1});
}
