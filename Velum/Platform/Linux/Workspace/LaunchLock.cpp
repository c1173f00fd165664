#include "Velum/Platform/Linux/Workspace/LaunchLock.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <array>
#include <charconv>
#include <chrono>
#include <string_view>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/StableHash.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Directories.h"
#include "Velum/Platform/Linux/Processes/ProcessStatus.h"

namespace velum {
namespace {

constexpr std::string_view filePrefix = "launch-";

// O_NONBLOCK: whatever stands there under our name, opening it does not wait.
UniqueFd openFile(int folder, const std::string& name, int flags) {
  return UniqueFd(
      ::openat(folder, name.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
}

/// Takes the text up to the next NUL off `text`; nothing when there is no NUL.
std::optional<std::string_view> nextField(std::string_view& text) {
  const std::size_t end = text.find('\0');
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view field = text.substr(0, end);
  text.remove_prefix(end + 1);
  return field;
}

template <class Number>
bool parseField(std::string_view& text, Number& number) {
  const std::optional<std::string_view> field = nextField(text);
  return field &&
         std::from_chars(field->data(), field->data() + field->size(), number).ec == std::errc{};
}

/// Readers without the lock may see a record that is just being written; it then lacks its end.
std::optional<LaunchRecord> readRecord(const UniqueFd& file) {
  constexpr std::size_t sizeLimit = 16384;  // two paths
  std::array<char, sizeLimit> text;         // NOLINT(*-member-init): filled just below
  const ssize_t size =
      retryInterrupted([&] { return ::pread(file.get(), text.data(), text.size(), 0); });
  if (size <= 0) return std::nullopt;
  std::string_view rest(text.data(), static_cast<std::size_t>(size));
  LaunchRecord record;
  if (!parseField(rest, record.process) || !parseField(rest, record.startTime)) return std::nullopt;
  const std::optional<std::string_view> path = nextField(rest);
  const std::optional<std::string_view> identifier = nextField(rest);
  if (!path || !identifier) return std::nullopt;
  record.path = *path;
  record.identifier = *identifier;
  return record;
}

}  // namespace

bool LaunchRecord::isAlive() const {
  const std::optional<ProcessStatus> status = ProcessStatus::of(process);
  if (!status) return hasProcess(process);  // it can't be asked, and may be the one
  return status->startTime == startTime && status->isAlive();
}

bool LaunchFolder::isCurrent() const noexcept {
  return folder_ && generation_ == forkGeneration() && FileIdentity::ofPath(path_) == identity_;
}

bool LaunchFolder::open() {
  if (isCurrent()) return true;
  folder_.reset();
  const std::optional<std::string> path = Directories::shared().runtime();
  if (!path) return false;
  path_ = *path;
  folder_.reset(::opendir(path_.c_str()));
  generation_ = forkGeneration();
  if (folder_) identity_ = FileIdentity::ofFile(::dirfd(folder_.get()));
  if (!identity_) folder_.reset();
  return folder_ != nullptr;
}

std::vector<LaunchRecord> LaunchFolder::records() {
  std::vector<LaunchRecord> records;
  if (!open()) return records;
  ::rewinddir(folder_.get());
  while (const dirent* entry = ::readdir(folder_.get())) {
    if (!std::string_view(entry->d_name).starts_with(filePrefix)) continue;
    const UniqueFd file = openFile(::dirfd(folder_.get()), entry->d_name, O_RDONLY);
    if (!file) continue;
    if (std::optional<LaunchRecord> record = readRecord(file)) {
      records.push_back(std::move(*record));
    }
  }
  return records;
}

UniqueFd LaunchFolder::lockFile(const std::string& key, std::string& problem) {
  if (!open()) {
    problem = "There is no runtime folder for the lock of a launch";
    return {};
  }
  // Two applications with the same value merely wait for each other.
  const std::string name = fmt::format("{}{:016x}", filePrefix, stableHash<std::uint64_t>(key));
  UniqueFd file = openFile(::dirfd(folder_.get()), name, O_RDWR | O_CREAT);
  if (!file) problem = lastSystemError(fmt::format("open ({}/{})", path_, name)).what();
  return file;
}

LaunchLock::LaunchLock(LaunchFolder& folder, const std::optional<std::string>& identifier,
                       const std::string& canonicalPath)
    : file_(folder.lockFile(identifier.value_or(canonicalPath), problem_)) {}

bool LaunchLock::tryAcquire() noexcept {
  constexpr std::chrono::nanoseconds once{0};
  lock_.reset();
  return static_cast<bool>(lock_.emplace(FileLock::tryFor(file_.get(), once)));
}

void LaunchLock::giveUp() {
  problem_ = "Another process keeps the lock of the launch";
}

void LaunchLock::release() noexcept {
  // Not by closing alone: a process forked meanwhile may share the open file for a moment.
  lock_.reset();
  file_.reset();
}

std::optional<LaunchRecord> LaunchLock::record() const {
  return file_ ? readRecord(file_) : std::nullopt;
}

void LaunchLock::setRecord(const LaunchRecord& record) {
  if (!file_) return;
  const std::string text = fmt::format("{}{}{}{}{}{}{}{}", record.process, '\0', record.startTime,
                                       '\0', record.path, '\0', record.identifier, '\0');
  if (::ftruncate(file_.get(), 0) != 0 ||
      ::pwrite(file_.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
    problem_ = lastSystemError("pwrite, launch record of " + record.path).what();
  }
}

}  // namespace velum
