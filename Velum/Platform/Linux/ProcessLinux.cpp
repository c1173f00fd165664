#include "Velum/Platform/Linux/ProcessLinux.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <memory>

#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {
namespace {

// Of the kernel's PF_ flags, stable for decades because they stand in /proc/PID/stat.
constexpr unsigned forkedWithoutExec = 0x40;
constexpr unsigned kernelThread = 0x00200000;
constexpr pid_t kernelThreadParent = 2;

/// The start of a file of /proc, as much as one page holds. Empty when it can't be read.
std::string contents(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return {};
  std::array<char, 4096> text;  // NOLINT(*-member-init): read for every process, filled just below
  const ssize_t size =
      retryInterrupted([&] { return ::read(file.get(), text.data(), text.size()); });
  return {text.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

/// Takes the next word off `text`.
std::string_view nextWord(std::string_view& text) {
  const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
  const std::size_t end = std::min(text.find(' ', begin), text.size());
  const std::string_view word = text.substr(begin, end - begin);
  text.remove_prefix(end);
  return word;
}

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size();
}

/// The kernel's own threads, which are half of all processes on a desktop: all of them are
/// children of one process, which lists them in one read where the kernel was built to do so.
std::vector<pid_t> kernelThreads() {
  // In a container, process 2 is just another process; what it is never changes.
  static const bool isListed = [] {
    const auto status = ProcessStatus::of(kernelThreadParent);
    return status && status->isKernelThread();
  }();
  std::vector<pid_t> threads;
  if (!isListed) return threads;
  const std::string text = contents("/proc/2/task/2/children");
  std::string_view rest = text;
  rest = rest.substr(0, rest.rfind(' ') + 1);  // a number that was cut off is none
  for (std::string_view word = nextWord(rest); !word.empty(); word = nextWord(rest)) {
    pid_t pid = 0;
    if (parseNumber(word, pid)) threads.push_back(pid);
  }
  std::sort(threads.begin(), threads.end());
  return threads;
}

}  // namespace

bool ProcessStatus::isAlive() const noexcept {
  const bool hasEnded = state == 'Z' || state == 'X' || state == 'x';
  return !hasEnded || threads > 1;
}

bool ProcessStatus::isForkedCopy() const noexcept {
  return (flags & forkedWithoutExec) != 0;
}

bool ProcessStatus::isKernelThread() const noexcept {
  return (flags & kernelThread) != 0;
}

std::optional<ProcessStatus> ProcessStatus::parse(std::string_view line) {
  // The second field is the program's name in parentheses and may hold anything, ")" included.
  const std::size_t nameEnd = line.rfind(')');
  if (nameEnd == std::string_view::npos) return std::nullopt;
  line.remove_prefix(nameEnd + 1);
  constexpr std::size_t firstField = 3;
  constexpr std::size_t lastField = 22;
  std::array<std::string_view, lastField + 1> fields;
  for (std::size_t field = firstField; field <= lastField; ++field) {
    fields.at(field) = nextWord(line);
  }
  ProcessStatus status;
  if (fields[3].size() != 1) return std::nullopt;
  status.state = fields[3][0];
  const bool isWhole =
      parseNumber(fields[4], status.parent) && parseNumber(fields[5], status.group) &&
      parseNumber(fields[6], status.session) && parseNumber(fields[9], status.flags) &&
      parseNumber(fields[20], status.threads) && parseNumber(fields[22], status.startTime);
  return isWhole ? std::optional(status) : std::nullopt;
}

std::optional<ProcessStatus> ProcessStatus::of(pid_t pid) {
  return parse(contents(fmt::format("/proc/{}/stat", pid)));
}

std::optional<std::string> executableOf(pid_t pid) {
  std::array<char, 32> path{};
  *fmt::format_to(path.data(), "/proc/{}/exe", pid) = '\0';
  std::array<char, PATH_MAX> target;  // NOLINT(*-member-init): 4 KiB per process, read up to size
  const ssize_t size = ::readlink(path.data(), target.data(), target.size());
  if (size <= 0) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(size));
}

std::optional<std::string> controlGroup(std::string_view text) {
  // "<number>:<controllers>:<path>"; number 0 and no controllers mark the unified hierarchy.
  // Where everything is in its root, the manager uses the old one that bears its name, if any.
  constexpr std::string_view unified = "0::";
  constexpr std::string_view named = ":name=systemd:";
  std::optional<std::string> result;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.starts_with(unified) && line != "0::/") {
      return std::string(line.substr(unified.size()));
    }
    if (const std::size_t at = line.find(named); at != std::string_view::npos) {
      result = line.substr(at + named.size());
    }
  }
  return result;
}

std::optional<std::string> controlGroupOf(pid_t pid) {
  // Without it no group says anything of a process, and there is one file to read for each.
  static const bool hasServiceManager = ::sd_booted() > 0;
  if (!hasServiceManager) return std::nullopt;
  return controlGroup(contents(fmt::format("/proc/{}/cgroup", pid)));
}

bool isUserManager(pid_t pid) {
  const std::optional<std::string> group = controlGroupOf(pid);
  if (!group) return false;
  // ".../user@1000.service/init.scope"
  constexpr std::string_view tail = ".service/init.scope";
  std::string_view path = *group;
  if (!path.ends_with(tail)) return false;
  path.remove_suffix(tail.size());
  const std::size_t at = path.rfind("/user@");
  unsigned user = 0;
  return at != std::string_view::npos && parseNumber(path.substr(at + 6), user);
}

std::vector<pid_t> processIds() {
  const auto close = [](DIR* folder) { ::closedir(folder); };
  const std::unique_ptr<DIR, decltype(close)> folder(::opendir("/proc"), close);
  std::vector<pid_t> ids;
  if (!folder) return ids;
  while (const dirent* entry = ::readdir(folder.get())) {
    pid_t pid = 0;
    if (parseNumber(std::string_view(entry->d_name), pid)) ids.push_back(pid);
  }
  std::sort(ids.begin(), ids.end());
  std::vector<pid_t> result;
  const std::vector<pid_t> threads = kernelThreads();
  std::set_difference(ids.begin(), ids.end(), threads.begin(), threads.end(),
                      std::back_inserter(result));
  return result;
}

}  // namespace velum
