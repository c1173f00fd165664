#include "Velum/Platform/Linux/LaunchLockLinux.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <charconv>
#include <filesystem>
#include <string_view>

#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Directories.h"
#include "Velum/Platform/Linux/ProcessLinux.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

constexpr std::string_view filePrefix = "launch-";

/// FNV-1a: two bundles with the same value merely wait for each other.
std::uint64_t hash(std::string_view text) {
  std::uint64_t value = 0xcbf29ce484222325;
  for (const char byte : text) {
    value = (value ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
  }
  return value;
}

// O_NONBLOCK: whatever stands there under our name, opening it does not wait.
UniqueFd openFile(const std::string& path, int flags) {
  return UniqueFd(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
}

UniqueFd openLockFile(const std::string& bundle) {
  const std::optional<std::string> folder = Directories::shared().runtime();
  if (!folder) return {};
  const std::string path = fmt::format("{}/{}{:016x}", *folder, filePrefix, hash(bundle));
  UniqueFd file = openFile(path, O_RDWR | O_CREAT);
  if (!file) {
    logDebug({"Velum/Workspace", "openLockFile(_:)"}, "{}",
             lastSystemError("open (" + path + ")").what());
  }
  return file;
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
  std::string text(sizeLimit, '\0');
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
  return status && status->startTime == startTime && status->isAlive();
}

LaunchLock::LaunchLock(std::string canonicalPath)
    : path_(std::move(canonicalPath)), file_(openLockFile(path_)) {}

bool LaunchLock::tryAcquire() noexcept {
  if (!file_) return true;
  const int result = retryInterrupted([this] { return ::flock(file_.get(), LOCK_EX | LOCK_NB); });
  return result == 0 || errno != EWOULDBLOCK;
}

void LaunchLock::acquire() noexcept {
  if (file_) retryInterrupted([this] { return ::flock(file_.get(), LOCK_EX); });
}

void LaunchLock::release() noexcept {
  // Not by closing alone: a process forked meanwhile may share the open file for a moment.
  if (file_) ::flock(file_.get(), LOCK_UN);
  file_.reset();
}

std::optional<LaunchRecord> LaunchLock::record() const {
  std::optional<LaunchRecord> record = file_ ? readRecord(file_) : std::nullopt;
  return record && record->path == path_ ? record : std::nullopt;
}

void LaunchLock::setRecord(LaunchRecord record) {
  if (!file_) return;
  const std::string text = fmt::format("{}{}{}{}{}{}{}{}", record.process, '\0', record.startTime,
                                       '\0', path_, '\0', record.identifier, '\0');
  if (::ftruncate(file_.get(), 0) == 0 &&
      ::pwrite(file_.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size())) {
    return;
  }
  logDebug({"Velum/Workspace", "setRecord(_:)"}, "{}",
           lastSystemError("pwrite, launch record of " + path_).what());
}

std::vector<LaunchRecord> LaunchLock::allRecords() {
  std::vector<LaunchRecord> records;
  const std::optional<std::string> folder = Directories::shared().runtime();
  if (!folder) return records;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(*folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (!entry->path().filename().native().starts_with(filePrefix)) continue;
    const UniqueFd file = openFile(entry->path().native(), O_RDONLY);
    if (!file) continue;
    if (std::optional<LaunchRecord> record = readRecord(file)) {
      records.push_back(std::move(*record));
    }
  }
  return records;
}

}  // namespace velum
