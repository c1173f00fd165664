#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velum/DirectoryMonitor.h"
#include "Velum/Logger/Handlers/NSLogHandler.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Posix/ChildIo.h"
#include "Velum/Platform/Posix/Spawn.h"
#include "Velum/Process.h"
#include "Velum/String.h"
#include "Velum/SystemError.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

struct WatchOptions {
  std::string path;
  bool json = false;
  bool exec = false;
  std::vector<std::string> command;
};

std::atomic<int> watchWaker{-1};  // for the signal handler
std::atomic<bool> isWatchInterrupted{false};

extern "C" void endWatch(int /*signal*/) {
  const int code = errno;
  isWatchInterrupted.store(true);
  static_cast<void>(!::write(watchWaker, "", 1));
  errno = code;
}

/// Wakes the thread that prints: for a change, and for Ctrl-C or a polite kill, which from the
/// object's making on do nothing else.
class WatchWaker final : public velum::DirectoryMonitorDelegate {
 public:
  WatchWaker() {
    watchWaker = pipe_.writer.get();
    std::signal(SIGINT, endWatch);   // NOLINT(cert-err33-c): can't fail
    std::signal(SIGTERM, endWatch);  // NOLINT(cert-err33-c)
  }
  WatchWaker(const WatchWaker&) = delete;
  WatchWaker& operator=(const WatchWaker&) = delete;
  ~WatchWaker() override {
    std::signal(SIGINT, SIG_DFL);   // NOLINT(cert-err33-c)
    std::signal(SIGTERM, SIG_DFL);  // NOLINT(cert-err33-c)
  }

  void directoryMonitorDidObserveChange(velum::IDirectoryMonitor& /*monitor*/) override {
    if (!isChanged_.exchange(true)) static_cast<void>(!::write(pipe_.writer.get(), "", 1));
  }

  /// True for a change, or for several that came since the last call; false for a signal.
  bool waitForChange() {
    while (!isWatchInterrupted) {
      char byte = 0;
      velum::retryInterrupted([&] { return ::read(pipe_.reader.get(), &byte, 1); });
      if (isChanged_.exchange(false) && !isWatchInterrupted) return true;
    }
    return false;
  }

 private:
  velum::PipeEnds pipe_ = velum::makePipe();
  std::atomic<bool> isChanged_{false};
};

void printChange(const WatchOptions& options, bool isThere) {
  std::string date;
  velum::appendLogDate(date, std::chrono::system_clock::now());
  Output output(STDOUT_FILENO);
  if (options.json) {
    nlohmann::ordered_json change;
    change["date"] = date;
    change["path"] = velum::repairedUtf8(options.path);
    change["exists"] = isThere;
    output.write(change.dump());
  } else {
    output.write(date + (isThere ? " changed " : " missing ") + options.path);
  }
  output.write('\n');
  output.flush();
}

// Waits until it has ended. Its failure is told, and no reason to end.
void runOnChange(const std::string& tool, const std::vector<std::string>& command) {
  velum::SpawnOptions options;
  options.executable = tool;
  options.arguments = command;
  for (int number = 0; number < 3; ++number) {
    options.standardStreams.at(static_cast<std::size_t>(number)) = velum::inheritedStream(number);
  }
  const pid_t pid = velum::spawn(options);
  int status = 0;
  velum::retryInterrupted([&] { return ::waitpid(pid, &status, 0); });
  const auto end = velum::Termination::ofWaitStatus(status);
  if (end == velum::Termination{} || isWatchInterrupted) return;
  const bool isSignal = end.reason == velum::Termination::Reason::uncaughtSignal;
  std::cerr << fmt::format("velumctl: {} {} {}\n", tool,
                           isSignal ? "was ended by signal" : "ended with status", end.status);
}

void startWatch(const WatchOptions& options, velum::DirectoryMonitor& monitor) {
  if (::access(options.path.c_str(), R_OK) != 0) throw velum::lastSystemError(options.path);
  velum::Logger::shared().setLogLevel(velum::LogLevel::error);
  velum::Logger::shared().setHandlers({std::make_shared<velum::NSLogHandler>()});
  if (!monitor.startMonitoring()) {
    throw Failure(fmt::format("can't watch {}; the line above says why", options.path));
  }
  velum::Logger::shared().setHandlers({});  // that there is nothing now is printed
}

void watch(const WatchOptions& options) try {
  if (options.exec == options.command.empty()) {
    throw UsageError("name the command to run behind --exec; see \"velumctl watch --help\"");
  }
  const std::string tool = options.exec ? toolPath(options.command.front()) : std::string();
  const auto waker = std::make_shared<WatchWaker>();
  const auto monitor = velum::DirectoryMonitor::create(options.path);
  monitor->setDelegate(waker);
  startWatch(options, *monitor);
  while (waker->waitForChange()) {
    // Watches what is there by now, should it be another file or folder.
    printChange(options, monitor->startMonitoring());
    if (options.exec) runOnChange(tool, options.command);
  }
  monitor->stopMonitoring();
} catch (const velum::SystemError& error) {
  if (error.code() != EPIPE) throw;
}

}  // namespace

void addWatch(CLI::App& app) {
  auto options = std::make_shared<WatchOptions>();
  CLI::App& command =
      *app.add_subcommand("watch", "Print when a folder or file changes, until Ctrl-C");
  command.add_option("PATH", options->path, "What to watch")->required();
  command.add_flag("--json", options->json, "Print one object per line: date, path, exists");
  command.add_flag("--exec", options->exec,
                   "Run the rest of the command line after each change: COMMAND [ARGUMENT ...]");
  command.prefix_command();
  command.footer(
      "Changes that come close together, or while the command runs, are one. What is deleted, "
      "moved "
      "away or replaced is watched again as soon as something is at the path.\n\n"
      "Examples:\n"
      "  velumctl watch ~/.config/vpn\n"
      "  velumctl watch --json /etc/resolv.conf\n"
      "  velumctl watch profiles --exec ./reload.sh --quiet");
  command.callback([options, &command] {
    options->command = command.remaining();
    if (!options->command.empty() && options->command.front() == "--") {
      options->command.erase(options->command.begin());
    }
    velumctl::watch(*options);
  });
}

}  // namespace velumctl
