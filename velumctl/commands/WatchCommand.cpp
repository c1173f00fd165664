#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <array>
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

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/DirectoryMonitor.h"
#include "Velum/Logger/Handlers/NSLogHandler.h"
#include "Velum/Logger/LogRecord.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Spawn.h"
#include "Velum/Process.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Interruption.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

struct WatchOptions {
  std::string path;
  bool json = false;
  bool exec = false;
  std::vector<std::string> command;
};

/// Wakes the thread that prints: for a change, and for a signal that asks for the end.
class WatchWaker final : public velum::DirectoryMonitorDelegate {
 public:
  WatchWaker() { interruption_.wakes(pipe_.writer.get()); }
  WatchWaker(const WatchWaker&) = delete;
  WatchWaker& operator=(const WatchWaker&) = delete;
  ~WatchWaker() override = default;

  void directoryMonitorDidObserveChange(velum::IDirectoryMonitor& /*monitor*/) override {
    if (!isChanged_.exchange(true)) static_cast<void>(!::write(pipe_.writer.get(), "", 1));
  }

  /// True for a change, or for several that came since the last call; false for a signal.
  bool waitForChange() {
    while (!Interruption::isAsked()) {
      if (isChanged_.exchange(false)) return true;
      wait(none);
    }
    return false;
  }

  /// True when the descriptor is readable; false for a signal.
  bool waitFor(int descriptor) const {
    while (!Interruption::isAsked()) {
      if (wait(descriptor)) return true;
    }
    return false;
  }

 private:
  static constexpr int none = -1;  // poll(2) passes over it

  bool wait(int descriptor) const {
    std::array<pollfd, 2> states{{{pipe_.reader.get(), POLLIN, 0}, {descriptor, POLLIN, 0}}};
    velum::retryInterrupted([&] { return ::poll(states.data(), states.size(), -1); });
    char byte = 0;
    if (states[0].revents != 0) {
      velum::retryInterrupted([&] { return ::read(pipe_.reader.get(), &byte, 1); });
    }
    return states[1].revents != 0;
  }

  velum::PipeEnds pipe_ = velum::makePipe();
  std::atomic<bool> isChanged_{false};
  Interruption interruption_;  // ends before the pipe
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

// Waits until it has ended. Its failure is told, and no reason to end. After a signal it is
// waited for a moment only.
void runOnChange(const std::string& tool, const std::vector<std::string>& command,
                 const WatchWaker& waker) {
  velum::SpawnOptions options;
  options.executable = tool;
  options.arguments = command;
  for (int number = 0; number < 3; ++number) {
    options.standardStreams.at(static_cast<std::size_t>(number)) = velum::inheritedStream(number);
  }
  const pid_t pid = velum::spawn(options);
  const velum::UniqueFd ended = velum::exitDescriptor(pid);
  if (!waker.waitFor(ended.get())) {
    constexpr int patience = 2000;  // milliseconds; Ctrl-C has reached the command as well
    pollfd state{ended.get(), POLLIN, 0};
    velum::retryInterrupted([&] { return ::poll(&state, 1, patience); });
    if (state.revents == 0) {
      ::kill(pid, SIGTERM);
      return;
    }
  }
  const auto end = velum::Termination::ofWaitStatus(velum::reapChild(pid));
  if (end == velum::Termination{} || Interruption::isAsked()) return;
  std::cerr << fmt::format("velumctl: {} {}\n", tool, end.text());
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
    if (options.exec) runOnChange(tool, options.command, *waker);
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
      "away or replaced is watched again as soon as something is at the path. What is in the files "
      "of a folder is nothing to the folder.\n\n"
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
