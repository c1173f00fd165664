// A tiny application that the demo, the end-to-end tests and the benchmarks start, quit and have
// opened again. It has no window: it runs until SIGTERM asks it to quit, and then ends with 0.
//
// Environment variables steer it. The relauncher hands its own environment on, so what is set for
// the helper reaches the instance that it opens:
//
//   SAMPLE_APP_EVENTS=<path>  Appends a line per event, each in one write(2):
//                               started <realtime ns> <monotonic ns> <pid> <ppid> <sid>
//                               quit <realtime ns> <monotonic ns> <pid> <ppid> <sid>
//                             The times of "started" are those of the first statement of main();
//                             once the line is there, SIGTERM leads to an orderly end.
//                             "quit" comes last before every orderly end.
//   SAMPLE_APP_EXIT=<n>       Ends at once with this status ("started" and "quit" are written).
//   SAMPLE_APP_SIGNAL=<n>     Ends itself at once with this signal ("started" alone is written).
//   SAMPLE_APP_REPORT=<path>  Writes what the process was born with, complete before "started":
//                               pid <n> | ppid <n> | pgid <n> | sid <n> | cwd <path>
//                               argument <text>                (one line each, argv[0] first)
//                               descriptor <n> <what it leads to>   (one line each)
//                               SigBlk: <hex> | SigIgn: <hex> | SigCgt: <hex>
//                               environment <name>=<value>     (one line each)
//
// Exit status: 0 after SIGTERM, SAMPLE_APP_EXIT where set, 64 when a variable is not understood,
// 74 when a file can't be written.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace {

constexpr int usageError = 64;
constexpr int inputOutputError = 74;

struct Times {
  std::int64_t realtime;
  std::int64_t monotonic;

  static Times now() { return {nanoseconds(CLOCK_REALTIME), nanoseconds(CLOCK_MONOTONIC)}; }

 private:
  static std::int64_t nanoseconds(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
  }
};

[[noreturn]] void fail(int status, const std::string& text) {
  std::cerr << "sample_app: " << text << '\n';
  std::exit(status);
}

std::optional<int> numberFrom(const char* variable) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return std::nullopt;
  const std::string_view digits(text);
  int number = 0;
  const auto [end, error] = std::from_chars(digits.begin(), digits.end(), number);
  if (error != std::errc{} || end != digits.end() || number < 0) {
    fail(usageError, std::string(variable) + " is not a number: " + text);
  }
  return number;
}

void append(const char* path, std::string_view line) {
  const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (file < 0 || write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    fail(inputOutputError, std::string("can't write ") + path);
  }
  close(file);
}

void record(std::string_view event, const Times& times) {
  const char* path = std::getenv("SAMPLE_APP_EVENTS");
  if (path == nullptr) return;
  std::string line(event);
  for (const std::int64_t number : {times.realtime, times.monotonic, std::int64_t{getpid()},
                                    std::int64_t{getppid()}, std::int64_t{getsid(0)}}) {
    line += ' ' + std::to_string(number);
  }
  append(path, line + '\n');
}

std::string linkTarget(const std::string& path) {
  std::string target(4096, '\0');
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return target;
}

std::string descriptors() {
  const auto closeFolder = [](DIR* folder) { closedir(folder); };
  const std::unique_ptr<DIR, decltype(closeFolder)> folder(opendir("/proc/self/fd"), closeFolder);
  if (!folder) fail(inputOutputError, "can't read /proc/self/fd");
  std::string lines;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string name(entry->d_name);
    if (name[0] == '.' || name == std::to_string(dirfd(folder.get()))) continue;
    lines += "descriptor " + name + ' ' + linkTarget("/proc/self/fd/" + name) + '\n';
  }
  return lines;
}

std::string signalState() {
  std::ifstream status("/proc/self/status");
  std::string lines;
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("SigBlk:") || line.starts_with("SigIgn:") || line.starts_with("SigCgt:")) {
      line.replace(line.find('\t'), 1, " ");
      lines += line + '\n';
    }
  }
  return lines;
}

void writeReport(std::span<char*> arguments) {
  const char* path = std::getenv("SAMPLE_APP_REPORT");
  if (path == nullptr) return;
  std::string report = "pid " + std::to_string(getpid()) + "\nppid " + std::to_string(getppid()) +
                       "\npgid " + std::to_string(getpgrp()) + "\nsid " +
                       std::to_string(getsid(0)) + "\ncwd " + linkTarget("/proc/self/cwd") + '\n';
  for (const char* argument : arguments) report += std::string("argument ") + argument + '\n';
  report += descriptors() + signalState();
  for (char** variable = environ; *variable != nullptr; ++variable) {
    report += std::string("environment ") + *variable + '\n';
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!(file << report << std::flush)) fail(inputOutputError, std::string("can't write ") + path);
}

[[noreturn]] void endBySignal(int number) {
  sigset_t set{};
  sigemptyset(&set);
  if (sigaddset(&set, number) != 0) fail(usageError, "SAMPLE_APP_SIGNAL is not a signal");
  // SIGKILL and SIGSTOP refuse to be set, and need not be.
  static_cast<void>(std::signal(number, SIG_DFL));
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  static_cast<void>(raise(number));
  fail(usageError, "SAMPLE_APP_SIGNAL does not end a process");
}

void waitForQuit(const sigset_t& quitSignals) {
  int number = 0;
  while (sigwait(&quitSignals, &number) == EINTR) {
  }
}

}  // namespace

int main(int count, char** arguments) {
  const Times started = Times::now();
  writeReport({arguments, static_cast<std::size_t>(count)});

  sigset_t quitSignals{};
  sigemptyset(&quitSignals);
  sigaddset(&quitSignals, SIGTERM);
  sigprocmask(SIG_BLOCK, &quitSignals, nullptr);  // before "started", which invites SIGTERM
  record("started", started);

  if (const auto number = numberFrom("SAMPLE_APP_SIGNAL")) endBySignal(*number);
  const auto status = numberFrom("SAMPLE_APP_EXIT");
  if (!status) waitForQuit(quitSignals);
  record("quit", Times::now());
  return status.value_or(0);
}
