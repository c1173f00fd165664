// How long the user is without the application: from its end to the first instruction of the new
// instance, with the helper, with the plainest program that could do it, and with what shell
// scripts do.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Velum/Platform/Posix/UniqueFd.h"
#include "Velum/SystemError.h"
#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

using std::chrono::milliseconds;

constexpr int rounds = 40;
constexpr int shellRounds = 15;

// "$1" is the executable, "$2" the process id.
constexpr auto tailScript = R"(tail --pid="$2" -f /dev/null; exec "$1")";
constexpr auto loopScript = R"(while kill -0 "$2" 2>/dev/null; do sleep 0.1; done; exec "$1")";

// The first words of the line that an instance writes when it begins.
struct Started {
  double monotonic;  // nanoseconds
  pid_t process;
};

// The pipe into which the instances of the sample application write what happens to them.
class Events {
 public:
  explicit Events(const std::string& path) {
    if (::mkfifo(path.c_str(), 0600) != 0) throw velum::lastSystemError("mkfifo (" + path + ")");
    pipe_.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!pipe_) throw velum::lastSystemError("open (" + path + ")");
    ::setenv("SAMPLE_APP_EVENTS", path.c_str(), 1);
  }

  // Each line comes in one piece, and the next one after the instance was killed.
  Started next() {
    bench::awaitReadable(pipe_.get(), "no instance begins");
    std::array<char, 256> line{};
    if (::read(pipe_.get(), line.data(), line.size() - 1) <= 0) {
      throw velum::lastSystemError("read (events)");
    }
    long long realtime = 0;
    long long monotonic = 0;
    Started started{};
    if (std::sscanf(line.data(), "started %lld %lld %d", &realtime, &monotonic, &started.process) !=
        3) {
      throw velum::SystemError(EBADMSG, line.data());
    }
    started.monotonic = static_cast<double>(monotonic);
    return started;
  }

 private:
  velum::UniqueFd pipe_;
};

double monotonicNow() {
  timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// An instance whose parent has gone has become our child.
void endInstance(pid_t process) {
  ::kill(process, SIGKILL);
  velum::retryInterrupted([&] { return ::waitpid(process, nullptr, 0); });
}

// Starts the application, has `watch` start somebody who watches it, ends the application after
// `pause`, and waits for its new instance. The watcher must end by itself afterwards.
template <class Watch>
double gapAfterEnd(Events& events, milliseconds pause, Watch watch) {
  bench::Process application({BENCH_APPLICATION});
  events.next();
  auto watcher = watch(std::to_string(application.id()));
  std::this_thread::sleep_for(pause);
  const double end = monotonicNow();
  application.end();
  const Started started = events.next();
  if (started.process != watcher->id()) watcher->wait();  // else it turned into the application
  endInstance(started.process);
  return started.monotonic - end;
}

std::unique_ptr<bench::Process> ready(const std::string& program, const std::string& what,
                                      const std::string& process) {
  return bench::startReady({program, what, process});
}

std::unique_ptr<bench::Process> shell(const char* script, const std::string& process) {
  return std::make_unique<bench::Process>(
      std::vector<std::string>{"sh", "-c", script, "sh", BENCH_APPLICATION, process});
}

}  // namespace

int main() {
  const bench::TemporaryFolder folder;
  bench::isolateEnvironment(folder.path());
  Events events(folder.file("events"));
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);

  // Long enough for everybody to fall asleep, and not in step with any of the polls.
  std::minstd_rand random(1);
  std::uniform_int_distribution<int> spread(500, 1500);
  const auto helper = [&] {
    return gapAfterEnd(events, milliseconds(20), [](const std::string& process) {
      return ready(BENCH_HELPER, BENCH_BUNDLE, process);
    });
  };
  const auto bare = [&] {
    return gapAfterEnd(events, milliseconds(20), [](const std::string& process) {
      return ready(BENCH_BARE, BENCH_APPLICATION, process);
    });
  };
  const auto scripted = [&](const char* script) {
    return gapAfterEnd(events, milliseconds(spread(random)),
                       [script](const std::string& process) { return shell(script, process); });
  };

  const auto close = bench::interleaved(rounds, {helper, bare});
  bench::report("application gone to new one running", close[0], "bare pidfd, poll, posix_spawn",
                close[1], {1.5});
  const auto far = bench::interleaved(shellRounds, {helper, [&] { return scripted(tailScript); },
                                                    [&] { return scripted(loopScript); }});
  bench::report("the same", far[0], "tail --pid; open", far[1], {1.0 / 20});
  bench::report("the same", far[0], "kill -0 every 100 ms; open", far[2], {1.0 / 20});
}
