#include "Velum/Platform/Linux/Processes/ProcessStatus.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <iterator>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/LazyValue.h"

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

bool hasProcess(pid_t pid) noexcept {
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

std::optional<uid_t> effectiveUserOf(pid_t pid) {
  const std::string text = contents(fmt::format("/proc/{}/status", pid));
  constexpr std::string_view key = "\nUid:\t";  // of the real one, which the effective one follows
  const std::size_t at = text.find(key);
  if (at == std::string::npos) return std::nullopt;
  const std::size_t begin = text.find('\t', at + key.size());
  if (begin == std::string::npos) return std::nullopt;
  uid_t user = 0;
  const std::size_t end = text.find('\t', begin + 1);
  if (end == std::string::npos) return std::nullopt;
  if (!parseNumber(std::string_view(text).substr(begin + 1, end - begin - 1), user)) return {};
  return user;
}

bool hasServiceManager() {
  static constinit LazyStatic<bool> isThere;
  return isThere.get([] { return ::sd_booted() > 0; });
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
  if (!hasServiceManager()) return std::nullopt;
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

int ProcessList::open() {
  if (folder_ && generation_ == forkGeneration()) return 0;
  folder_.reset(::opendir("/proc"));
  if (!folder_) return errno;
  generation_ = forkGeneration();
  openKernelThreads();
  return 0;
}

/// The kernel's own threads, which are half of all processes on a desktop: all of them are
/// children of one process, which lists them in one read where the kernel was built to do so.
void ProcessList::openKernelThreads() {
  // In a container, process 2 is just another process; what it is never changes.
  kernelThreads_.reset();
  const auto status = ProcessStatus::of(kernelThreadParent);
  if (!status || !status->isKernelThread()) return;
  kernelThreads_.reset(::open("/proc/2/task/2/children", O_RDONLY | O_CLOEXEC));
}

std::vector<pid_t> ProcessList::kernelThreads() const {
  std::vector<pid_t> threads;
  if (!kernelThreads_) return threads;
  std::array<char, 4096> text;  // NOLINT(*-member-init): filled just below
  const ssize_t size =
      retryInterrupted([&] { return ::pread(kernelThreads_.get(), text.data(), text.size(), 0); });
  std::string_view rest(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  rest = rest.substr(0, rest.rfind(' ') + 1);  // a number that was cut off is none
  for (std::string_view word = nextWord(rest); !word.empty(); word = nextWord(rest)) {
    pid_t pid = 0;
    if (parseNumber(word, pid)) threads.push_back(pid);
  }
  std::sort(threads.begin(), threads.end());
  return threads;
}

std::vector<pid_t> ProcessList::ids() {
  std::vector<pid_t> ids;
  if (open() != 0) return ids;
  ::rewinddir(folder_.get());
  while (const dirent* entry = ::readdir(folder_.get())) {
    pid_t pid = 0;
    if (parseNumber(std::string_view(entry->d_name), pid)) ids.push_back(pid);
  }
  std::sort(ids.begin(), ids.end());
  std::vector<pid_t> result;
  result.reserve(ids.size());
  const std::vector<pid_t> threads = kernelThreads();
  std::set_difference(ids.begin(), ids.end(), threads.begin(), threads.end(),
                      std::back_inserter(result));
  return result;
}

std::optional<std::string_view> ProcessList::executableOf(pid_t pid) {
  if (open() != 0) return std::nullopt;
  std::array<char, 32> path{};
  *fmt::format_to(path.data(), "{}/exe", pid) = '\0';
  const ssize_t size =
      ::readlinkat(::dirfd(folder_.get()), path.data(), target_.data(), target_.size());
  if (size <= 0) return std::nullopt;
  return std::string_view(target_.data(), static_cast<std::size_t>(size));
}

}  // namespace velum
