// How long the user is without the application: from its end to the first instruction of the new
// instance, with the helper, with the plainest program that could do it, and with what shell
// scripts do.
//
//   bench_relaunch [--session]    in a session of tests/support/user_session.sh, beside a service
//                                 manager of the user's

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "bench/support/Process.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

using std::chrono::milliseconds;

constexpr int rounds = 40;
constexpr int shellRounds = 15;
constexpr int crowd = 1000;

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

// Other processes of the user, which do nothing. Each of them is a fork of this one: it is their
// number that counts.
class Crowd {
 public:
  explicit Crowd(int count) {
    for (int i = 0; i < count; ++i) {
      const pid_t process = ::fork();
      if (process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) ::pause();
      }
      if (process < 0) throw velum::lastSystemError("fork");
      processes_.push_back(process);
    }
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;
  ~Crowd() {
    for (const pid_t process : processes_) endInstance(process);
  }

 private:
  std::vector<pid_t> processes_;
};

std::unique_ptr<bench::Process> shell(const char* script, const std::string& process) {
  return std::make_unique<bench::Process>(
      std::vector<std::string>{"/bin/sh", "-c", script, "sh", BENCH_APPLICATION, process});
}

// What a look at every process can't do without: the list, and the program of each.
double bareLook() {
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"), &::closedir);
  if (!processes) throw velum::lastSystemError("opendir (/proc)");
  return bench::timed([&] {
    std::array<char, 4096> target;  // NOLINT(*-member-init): filled just below
    while (const dirent* entry = ::readdir(processes.get())) {
      const std::string path = std::string(entry->d_name) + "/exe";
      if (std::isdigit(static_cast<unsigned char>(path[0])) == 0) continue;
      static_cast<void>(
          ::readlinkat(::dirfd(processes.get()), path.c_str(), target.data(), target.size()));
    }
  });
}

void reportCrowded(const std::string& what, const bench::Run& helper, const bench::Run& bare,
                   const std::vector<bench::Times>& alone) {
  const Crowd others(crowd);
  const auto times = bench::interleaved(rounds, {helper, bare, bareLook});
  bench::report(what, times[0], "bare pidfd, poll, posix_spawn", times[1], {2.5});
  // Of the difference, the bare program has its share: a larger machine takes longer to start it.
  const auto median = [](const bench::Times& each) { return bench::quantile(each, 0.5); };
  const double each = (median(times[0]) - median(alone[0])) - (median(times[1]) - median(alone[1]));
  bench::report("the same, for each of them", fmt::format("{:.2f} us", each / (crowd * 1000.0)),
                "readdir, readlinkat",
                fmt::format("<= 1.5 x {:.2f} us", median(times[2]) / (crowd * 1000.0)),
                each <= 1.5 * median(times[2]));
}

}  // namespace

int main(int count, char** arguments) {
  const bool isInSession = count > 1 && std::string_view(arguments[1]) == "--session";
  const bench::TemporaryFolder folder;
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string session = runtime != nullptr ? runtime : "";
  bench::isolateEnvironment(folder.path());
  if (isInSession) ::setenv("XDG_RUNTIME_DIR", session.c_str(), 1);
  Events events(folder / "events");
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);

  // Long enough for everybody to fall asleep, and not in step with any of the polls.
  constexpr milliseconds pause(100);
  std::minstd_rand random(1);
  std::uniform_int_distribution<int> spread(500, 1500);
  const auto helper = [&] {
    return gapAfterEnd(events, pause, [](const std::string& process) {
      return ready(BENCH_HELPER, BENCH_BUNDLE, process);
    });
  };
  const auto bare = [&] {
    return gapAfterEnd(events, pause, [](const std::string& process) {
      return ready(BENCH_BARE, BENCH_APPLICATION, process);
    });
  };
  const auto scripted = [&](const char* script) {
    return gapAfterEnd(events, milliseconds(spread(random)),
                       [script](const std::string& process) { return shell(script, process); });
  };

  const auto close = bench::interleaved(rounds, {helper, bare});
  if (isInSession) {
    bench::report("the same beside a service manager", close[0], "bare pidfd, poll, posix_spawn",
                  close[1]);
    reportCrowded("the same, 1,000 other processes", helper, bare, close);
    return EXIT_SUCCESS;
  }
  bench::report("application gone to new one running", close[0], "bare pidfd, poll, posix_spawn",
                close[1], {1.15});
  reportCrowded("the same, 1,000 other processes", helper, bare, close);
  const auto far = bench::interleaved(shellRounds, {helper, [&] { return scripted(tailScript); },
                                                    [&] { return scripted(loopScript); }});
  bench::report("the same", far[0], "tail --pid; open", far[1], {1.0 / 20});
  bench::report("the same", far[0], "kill -0 every 100 ms; open", far[2], {1.0 / 20});
}
