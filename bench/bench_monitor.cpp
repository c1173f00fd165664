// What a directory monitor adds to the kernel's own notices: the time from a change to the
// delegate, and the time and memory of a thousand monitors.

#include <fmt/format.h>
#include <malloc.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Velum/Base/SystemError.h"
#include "Velum/DirectoryMonitor.h"
#include "Velum/Files/UniqueFd.h"
#include "bench/support/Memory.h"
#include "bench/support/Table.h"
#include "bench/support/TemporaryFolder.h"

namespace {

constexpr int rounds = 60;
constexpr int changesPerRound = 100;
constexpr std::size_t monitorCount = 1000;

/// The moment a change was noticed, taken by the thread that noticed it.
class Notice {
 public:
  Notice() { ::sem_init(&noticed_, 0, 0); }
  Notice(const Notice&) = delete;
  Notice& operator=(const Notice&) = delete;
  ~Notice() { ::sem_destroy(&noticed_); }

  void give() noexcept {
    moment_ = std::chrono::steady_clock::now();
    ::sem_post(&noticed_);
  }
  std::chrono::steady_clock::time_point await() noexcept {
    velum::retryInterrupted([this] { return ::sem_wait(&noticed_); });
    return moment_;
  }

 private:
  sem_t noticed_{};
  std::chrono::steady_clock::time_point moment_;
};

struct NoticingDelegate final : velum::DirectoryMonitorDelegate {
  explicit NoticingDelegate(Notice& noticed) : notice(noticed) {}
  void directoryMonitorDidObserveChange(velum::IDirectoryMonitor& /*monitor*/) override {
    notice.give();
  }
  Notice& notice;
};

velum::UniqueFd openInotify() {
  velum::UniqueFd inotify(::inotify_init1(IN_CLOEXEC));
  if (!inotify) throw velum::lastSystemError("inotify_init1 ()");
  return inotify;
}

int addWatch(int inotify, const std::string& path) {
  const int watch =
      ::inotify_add_watch(inotify, path.c_str(), IN_ALL_EVENTS & ~(IN_OPEN | IN_CLOSE | IN_ACCESS));
  if (watch < 0) throw velum::lastSystemError("inotify_add_watch (" + path + ")");
  return watch;
}

/// The least there is: a thread in read(2). Ends with its folder.
class BareReader {
 public:
  BareReader(std::string folder, Notice& notice)
      : folder_(std::move(folder)), inotify_(openInotify()) {
    addWatch(inotify_.get(), folder_);
    thread_ = std::thread([this, &notice] { read(notice); });
  }
  BareReader(const BareReader&) = delete;
  BareReader& operator=(const BareReader&) = delete;
  ~BareReader() {
    std::filesystem::remove(folder_);
    thread_.join();
  }

 private:
  void read(Notice& notice) const {
    alignas(inotify_event) std::array<char, 16384> buffer{};
    while (true) {
      const ssize_t size = ::read(inotify_.get(), buffer.data(), buffer.size());
      const auto* const event = reinterpret_cast<const inotify_event*>(buffer.data());
      if (size <= 0 || (event->mask & (IN_DELETE_SELF | IN_IGNORED)) != 0) return;
      notice.give();
    }
  }

  std::string folder_;
  velum::UniqueFd inotify_;
  std::thread thread_;
};

// Where the scheduler happens to put a thread makes a difference of three times, and it sticks to
// it. So it is told: the thread that changes things to one processor, all others to the same or
// another.
void place(std::size_t changer, std::size_t others) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const pid_t id = std::stoi(task.path().filename());
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(id == ::getpid() ? changer : others, &set);
    if (::sched_setaffinity(id, sizeof set, &set) != 0) {
      throw velum::lastSystemError("sched_setaffinity (" + std::to_string(id) + ")");
    }
  }
}

// The median of a round, from before the call that changes the folder.
double delay(const std::string& folder, Notice& notice, std::chrono::microseconds pause) {
  bench::Times times;
  for (int i = 0; i < changesPerRound; ++i) {
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
    const auto start = std::chrono::steady_clock::now();
    if (::chmod(folder.c_str(), i % 2 == 0 ? 0700 : 0750) != 0) {
      throw velum::lastSystemError("chmod (" + folder + ")");
    }
    times.push_back(std::chrono::duration<double, std::nano>(notice.await() - start).count());
  }
  return bench::quantile(times, 0.5);
}

void measureDelay(const bench::TemporaryFolder& folder) {
  std::filesystem::create_directory(folder / "bare");
  std::filesystem::create_directory(folder / "monitored");
  Notice bareNotice;
  Notice notice;
  const BareReader bare(folder / "bare", bareNotice);
  const auto delegate = std::make_shared<NoticingDelegate>(notice);
  const auto monitor = velum::DirectoryMonitor::create(folder / "monitored");
  monitor->setDelegate(delegate);
  monitor->startMonitoring();
  const auto measure = [&](std::string_view what, std::chrono::microseconds pause) {
    const auto times =
        bench::interleaved(rounds, {[&] { return delay(folder / "monitored", notice, pause); },
                                    [&] { return delay(folder / "bare", bareNotice, pause); }});
    bench::report(what, times[0], "a thread in read(inotify)", times[1], {1.3});
  };
  delay(folder / "monitored", notice, {});  // all threads have been started by now
  place(0, 0);
  measure("change to delegate, one processor", {});
  if (std::thread::hardware_concurrency() > 1) {
    place(0, 1);
    measure("change to delegate, another processor", {});
    measure("the same, after 200 us of rest", std::chrono::microseconds(200));
  }
  monitor->stopMonitoring();
}

using Monitors = std::vector<std::shared_ptr<velum::DirectoryMonitor>>;

std::vector<std::string> makeFolders(const bench::TemporaryFolder& folder) {
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < monitorCount; ++i) {
    paths.push_back(folder / "folder" + std::to_string(i));
    std::filesystem::create_directory(paths.back());
  }
  return paths;
}

void startAll(const Monitors& monitors) {
  for (const auto& monitor : monitors) {
    if (!monitor->startMonitoring()) throw velum::SystemError(EIO, "startMonitoring");
  }
}

double startAndStop(const Monitors& monitors) {
  return bench::timed([&] {
    startAll(monitors);
    for (const auto& monitor : monitors) monitor->stopMonitoring();
  });
}

double addAndRemove(int inotify, const std::vector<std::string>& paths) {
  std::vector<int> watches(paths.size());
  return bench::timed([&] {
    std::transform(paths.begin(), paths.end(), watches.begin(),
                   [&](const std::string& path) { return addWatch(inotify, path); });
    for (const int watch : watches) ::inotify_rm_watch(inotify, watch);
  });
}

void measureThousand(const bench::TemporaryFolder& folder) {
  const auto paths = makeFolders(folder);
  const auto before = static_cast<std::int64_t>(::mallinfo2().uordblks);
  Monitors monitors;
  const std::int64_t grown = bench::peakMemory([&] {
    for (const auto& path : paths) monitors.push_back(velum::DirectoryMonitor::create(path));
    startAll(monitors);
  });
  const std::int64_t allocated = static_cast<std::int64_t>(::mallinfo2().uordblks) - before;
  const std::int64_t each = std::max(grown, allocated) / static_cast<std::int64_t>(monitorCount);
  bench::report("memory of a monitor that runs, of 1,000", fmt::format("{} B", each),
                "the larger of: resident, allocated", "<= 2 KiB", each <= 2048);
  for (const auto& monitor : monitors) monitor->stopMonitoring();

  const velum::UniqueFd inotify = openInotify();
  const auto times = bench::interleaved(
      rounds,
      {[&] { return startAndStop(monitors); }, [&] { return addAndRemove(inotify.get(), paths); }});
  bench::report("start and stop of a monitor, of 1,000", times[0], "inotify_add_watch, rm_watch",
                times[1], {2}, static_cast<double>(monitorCount));
}

}  // namespace

int main() {
  const bench::TemporaryFolder folder;
  measureThousand(folder);  // first, while memory has not been used by the other
  measureDelay(folder);
}
