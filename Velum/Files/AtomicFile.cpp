#include "Velum/Files/AtomicFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/LockedFile.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr mode_t ownerOnly = 0600;
constexpr std::string_view suffix = ".new";
constexpr std::size_t randomLength = 16;

/// Whether `path` still names the open file; nothing when that can't be seen.
std::optional<bool> isNamed(int file, const std::string& path) {
  struct stat open {};
  struct stat named {};
  if (::fstat(file, &open) != 0) return std::nullopt;
  if (::lstat(path.c_str(), &named) != 0) {
    return errno == ENOENT ? std::optional(false) : std::nullopt;
  }
  return open.st_dev == named.st_dev && open.st_ino == named.st_ino;
}

/// A new file that belongs to this writer: its lock tells others that the writer lives. A forked
/// child closes it, so that it does not speak for a parent that was killed.
class TemporaryFile {
 public:
  TemporaryFile(const std::string& prefix, std::string_view caller) {
    constexpr int mostAttempts = 100;
    constexpr std::chrono::seconds tidying(1);  // ends sooner: whoever tidies up holds it briefly
    for (int attempts = 0;; ++attempts) {
      try {
        file_.emplace([&] { return create(prefix, caller); }, tidying);
      } catch (const SystemError& error) {
        if (error.code() != EEXIST || attempts == mostAttempts) throw;
        continue;
      }
      // Whoever tidies up may have come between making and locking it. A file system without locks
      // has nobody tidying up either. What can't be seen is ours: if not, the rename fails.
      if (isNamed(file_->get(), path_).value_or(true)) return;
      file_.reset();
      path_.clear();
    }
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() { remove(); }

  void write(std::string_view content, mode_t mode, std::string_view caller) const {
    checked::write(file_->get(), content.data(), content.size(), caller);
    if (mode != ownerOnly && ::fchmod(file_->get(), mode) != 0) {
      throw lastSystemError(fmt::format("{}: fchmod ({})", caller, path_));
    }
    if (retryInterrupted([&] { return ::fsync(file_->get()); }) != 0) {
      throw lastSystemError(fmt::format("{}: fsync ({})", caller, path_));
    }
  }

  std::optional<FileStamp> stamp() const { return FileStamp::ofFile(file_->get()); }

  void moveTo(const std::string& path, std::string_view caller) {
    if (::rename(path_.c_str(), path.c_str()) != 0) {
      throw lastSystemError(fmt::format("{}: rename ({}, {})", caller, path_, path));
    }
    path_.clear();
  }

 private:
  UniqueFd create(const std::string& prefix, std::string_view caller) {
    remove();  // of a turn that a fork came between
    std::random_device random;
    const std::uint64_t number = (std::uint64_t{random()} << 32U) | random();
    std::string path = fmt::format("{}{:0{}x}{}", prefix, number, randomLength, suffix);
    UniqueFd file =
        checked::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, ownerOnly, caller);
    path_ = std::move(path);
    return file;
  }

  void remove() noexcept {
    if (!path_.empty()) ::unlink(path_.c_str());
    path_.clear();
  }

  std::string path_;  // empty while there is none, and once it has its final name
  std::optional<LockedFile> file_;
};

/// Makes a rename in `folder` last; some file systems can't, and need not.
void syncFolder(const UniqueFd& folder, const std::string& path, std::string_view caller) {
  if (retryInterrupted([&] { return ::fsync(folder.get()); }) == 0) return;
  if (errno == EINVAL || errno == ENOTSUP) return;
  throw lastSystemError(fmt::format("{}: fsync ({})", caller, path));
}

/// Gives what is at `path`, of whatever kind, the name `aside` as well, in place of what has that.
/// Where there can't be two names it loses the one it had.
void nameAside(const std::string& path, const std::string& aside, std::string_view caller) {
  std::error_code error;
  fs::remove_all(aside, error);
  if (::linkat(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), 0) == 0) return;
  if (errno == ENOENT || ::rename(path.c_str(), aside.c_str()) == 0) return;
  throw lastSystemError(fmt::format("{}: rename ({}, {})", caller, path, aside));
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
  if (isNamed(file.get(), path).value_or(false)) ::unlink(path.c_str());
}

}  // namespace

AtomicFile::AtomicFile(std::string path, mode_t mode) : path_(std::move(path)), mode_(mode) {
  const fs::path parts(path_);
  folder_ = parts.has_parent_path() ? parts.parent_path().string() : ".";
  name_ = parts.filename().string();
}

std::optional<FileStamp> AtomicFile::replace(std::string_view content, std::string_view caller,
                                             Old old) const {
  const UniqueFd folder = checked::open(folder_, O_RDONLY | O_DIRECTORY, 0, caller);
  removeLeftovers(folder.get());
  TemporaryFile file(fmt::format("{}/.{}.", folder_, name_), caller);
  file.write(content, mode_, caller);
  const auto stamp = file.stamp();
  if (old == Old::setAside) nameAside(path_, path_ + asideSuffix, caller);
  file.moveTo(path_, caller);
  syncFolder(folder, folder_, caller);
  return stamp;
}

bool AtomicFile::isTemporaryName(std::string_view name) const {
  const std::string prefix = "." + name_ + ".";
  return name.size() == prefix.size() + randomLength + suffix.size() && name.starts_with(prefix) &&
         name.ends_with(suffix);
}

void AtomicFile::removeLeftovers(int folder) const noexcept try {
  struct Closer {
    void operator()(DIR* stream) const noexcept { ::closedir(stream); }
  };
  UniqueFd own(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!own) return;
  const std::unique_ptr<DIR, Closer> stream(::fdopendir(own.get()));
  if (!stream) return;
  static_cast<void>(own.release());                              // the stream's now
  while (const dirent* const entry = ::readdir(stream.get())) {  // NOLINT(*-mt-unsafe): our stream
    if (isTemporaryName(entry->d_name)) removeIfAbandoned(folder_ + '/' + entry->d_name);
  }
} catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): no memory; the next one does it
}

}  // namespace velum
