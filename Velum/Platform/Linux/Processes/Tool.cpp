#include "Velum/Platform/Tool.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "Velum/Platform/ChildIo.h"

namespace velum {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int none = -1;  // poll(2) passes over it
constexpr milliseconds noLimit(-1);
// What fits into the second-level cache together with the pipe that it comes from.
constexpr std::size_t largestRead = 262'144;

struct Readable {
  bool first = false;
  bool second = false;
};

/// Waits until one of two descriptors is readable, or at its end.
Readable awaitReadable(int first, int second, milliseconds timeout) {
  std::array<pollfd, 2> states{{{first, POLLIN, 0}, {second, POLLIN, 0}}};
  const int ready = retryInterrupted(
      [&] { return ::poll(states.data(), states.size(), static_cast<int>(timeout.count())); });
  if (ready <= 0) return {};
  return {states[0].revents != 0, states[1].revents != 0};
}

/// Looks now and then whether the tool shall go on, and sees to it that it does not.
class Watch {
 public:
  explicit Watch(const KeepRunning& keepRunning) : keepRunning_(keepRunning) {}

  milliseconds timeout() const noexcept { return keepRunning_ ? interval : noLimit; }
  bool isStopping() const noexcept { return isStopping_; }

  /// The signal that the tool is due; 0 for none.
  int dueSignal(pid_t pid) {
    if (!keepRunning_) return 0;
    const auto now = Clock::now();
    if (now < next_) return 0;
    if (isStopping_) return SIGKILL;
    isStopping_ = !keepRunning_(pid);
    next_ = now + (isStopping_ ? patience : interval);
    return isStopping_ ? SIGTERM : 0;
  }

 private:
  static constexpr milliseconds interval{100};
  static constexpr milliseconds patience{2000};

  const KeepRunning& keepRunning_;
  Clock::time_point next_ = Clock::now();  // look, or kill
  bool isStopping_ = false;
};

/// What is still in the pipe when the tool has ended, and what others add to it in a moment.
void readRest(int output, const ReadOutput& readOutput) {
  // All that the tool wrote is there, however long it takes to read.
  for (std::size_t left = availableBytes(output); left > 0;) {
    const std::size_t size = readOutput(left);
    if (size == 0) return;
    left -= std::min(size, left);
  }
  constexpr milliseconds grace(100);
  for (const auto deadline = Clock::now() + grace; Clock::now() < deadline;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    const bool isReadable = awaitReadable(output, none, std::max(left, milliseconds(0))).first;
    if (!isReadable || readOutput(largestRead) == 0) return;
  }
}

}  // namespace

SpawnOptions toolOptions(const std::string& path, const std::vector<std::string>& arguments,
                         const std::optional<std::string>& directory) {
  SpawnOptions options;
  options.executable = std::filesystem::absolute(path).native();  // it may start in another folder
  options.arguments = {path};
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  options.directory = directory.value_or("");
  options.newSession = true;
  return options;
}

Tool::Tool(const SpawnOptions& options)
    : child_(spawn(options)), exit_(exitDescriptor(child_.pid)) {}

Tool::Child::~Child() {
  if (isReaped) return;
  signal(SIGKILL);
  reapChild(pid);
}

// Its session begins with one process group, which has the number of the tool. The number stays
// taken until the tool is reaped.
void Tool::Child::signal(int number) const noexcept {
  ::kill(-pid, number);
}

int Tool::wait(int output, const ReadOutput& readOutput, const KeepRunning& keepRunning) {
  Watch watch(keepRunning);
  for (;;) {
    const Readable ready = awaitReadable(exit_.get(), output, watch.timeout());
    if (ready.first) break;
    if (ready.second && readOutput(largestRead) == 0) output = none;
    if (const int number = watch.dueSignal(child_.pid); number != 0) {
      child_.signal(number);
      child_.signal(SIGCONT);  // one that was stopped hears of it too
    }
  }
  if (watch.isStopping()) child_.signal(SIGKILL);  // what is left of its group
  if (output != none) readRest(output, readOutput);
  child_.isReaped = true;
  return reapChild(child_.pid);
}

}  // namespace velum
