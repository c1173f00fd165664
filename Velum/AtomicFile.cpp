#include "Velum/AtomicFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <random>

#include "Velum/FileUtils.h"
#include "Velum/Platform/Posix/UniqueFd.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr mode_t ownerOnly = 0600;
constexpr std::string_view suffix = ".new";
constexpr std::size_t randomLength = 16;

/// Whether `path` still names the open file; nothing when that can't be seen.
std::optional<bool> isNamed(const UniqueFd& file, const std::string& path) {
  struct stat open {};
  struct stat named {};
  if (::fstat(file.get(), &open) != 0) return std::nullopt;
  if (::lstat(path.c_str(), &named) != 0) {
    return errno == ENOENT ? std::optional(false) : std::nullopt;
  }
  return open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

/// A new file that belongs to this writer: its lock tells others that the writer lives.
class TemporaryFile {
 public:
  TemporaryFile(const std::string& prefix, std::string_view caller) {
    std::random_device random;
    for (int attempts = 0;; ++attempts) {
      const std::uint64_t number = (std::uint64_t{random()} << 32U) | random();
      path_ = fmt::format("{}{:0{}x}{}", prefix, number, randomLength, suffix);
      try {
        file_ = checked::open(path_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, ownerOnly, caller);
      } catch (const SystemError& error) {
        constexpr int mostAttempts = 100;
        if (error.code() != EEXIST || attempts == mostAttempts) throw;
        continue;
      }
      // Whoever tidies up may have come between these two calls. A file system without locks has
      // nobody tidying up either. What can't be seen is ours: if it is not, the rename fails.
      const int locked = retryInterrupted([&] { return ::flock(file_.get(), LOCK_EX); });
      if (locked != 0 || isNamed(file_, path_).value_or(true)) return;
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }

  void write(std::string_view content, mode_t mode, std::string_view caller) const {
    checked::write(file_.get(), content.data(), content.size(), caller);
    if (mode != ownerOnly && ::fchmod(file_.get(), mode) != 0) {
      throw lastSystemError(fmt::format("{}: fchmod ({})", caller, path_));
    }
    if (retryInterrupted([&] { return ::fsync(file_.get()); }) != 0) {
      throw lastSystemError(fmt::format("{}: fsync ({})", caller, path_));
    }
  }

  void moveTo(const std::string& path, std::string_view caller) {
    if (::rename(path_.c_str(), path.c_str()) != 0) {
      throw lastSystemError(fmt::format("{}: rename ({}, {})", caller, path_, path));
    }
    path_.clear();
  }

 private:
  std::string path_;  // empty once it has its final name
  UniqueFd file_;
};

/// Makes a rename in `folder` last; some file systems can't, and need not.
void syncFolder(const std::string& folder, std::string_view caller) {
  const UniqueFd directory = checked::open(folder, O_RDONLY | O_DIRECTORY, 0, caller);
  if (retryInterrupted([&] { return ::fsync(directory.get()); }) == 0) return;
  if (errno == EINVAL || errno == ENOTSUP) return;
  throw lastSystemError(fmt::format("{}: fsync ({})", caller, folder));
}

/// Removes a file whose writer is gone.
void removeIfAbandoned(const std::string& path) {
  const UniqueFd file(retryInterrupted(
      [&] { return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_uid != ::geteuid() || ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    return;
  }
  // A writer that finished meanwhile gave the file another name.
  if (isNamed(file, path).value_or(false)) ::unlink(path.c_str());
}

}  // namespace

AtomicFile::AtomicFile(std::string path, mode_t mode) : path_(std::move(path)), mode_(mode) {
  const fs::path parts(path_);
  folder_ = parts.has_parent_path() ? parts.parent_path().string() : ".";
  name_ = parts.filename().string();
}

void AtomicFile::replace(std::string_view content, std::string_view caller) const {
  TemporaryFile file(fmt::format("{}/.{}.", folder_, name_), caller);
  file.write(content, mode_, caller);
  file.moveTo(path_, caller);
  syncFolder(folder_, caller);
}

bool AtomicFile::isTemporaryName(std::string_view name) const {
  const std::string prefix = "." + name_ + ".";
  return name.size() == prefix.size() + randomLength + suffix.size() && name.starts_with(prefix) &&
         name.ends_with(suffix);
}

void AtomicFile::removeLeftovers() const noexcept try {
  std::error_code error;
  for (auto entry = fs::directory_iterator(folder_, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (isTemporaryName(entry->path().filename().string())) {
      removeIfAbandoned(entry->path().string());
    }
  }
} catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): no memory; the next one does it
}

}  // namespace velum
