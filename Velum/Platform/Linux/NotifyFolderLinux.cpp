#include "Velum/Platform/Linux/NotifyFolderLinux.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "Velum/Fatal.h"
#include "Velum/Platform/Directories.h"
#include "Velum/Platform/Linux/XdgFolders.h"
#include "Velum/Platform/Thread.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

constexpr std::size_t longestPlainName = 200;
constexpr char hashMark = '=';
constexpr mode_t allMayPost = 0666;
constexpr mode_t allMayAdd = 01777;

/// What stands before the name in a file.
struct Header {
  NotifyGeneration generation;
  NotifyGeneration flipped;
};

NotifyGeneration flipped(const NotifyGeneration& generation) noexcept {
  return {~generation.moment, ~generation.writer};
}

NotifyGeneration newGeneration() noexcept {
  static std::atomic<std::uint32_t> count{0};
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const auto seconds = static_cast<std::uint64_t>(now.tv_sec);
  const auto thread = static_cast<std::uint64_t>(currentThreadId());
  return {seconds * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec),
          thread << 32U | count.fetch_add(1, std::memory_order_relaxed)};
}

std::string content(std::string_view name) {
  Header header;
  header.generation = newGeneration();
  header.flipped = flipped(header.generation);
  std::string bytes(sizeof header + name.size(), '\0');
  std::memcpy(bytes.data(), &header, sizeof header);
  name.copy(bytes.data() + sizeof header, name.size());
  return bytes;
}

SystemError postError(std::string_view call, const std::string& path) {
  return lastSystemError(fmt::format("post(_:), {} ({})", call, path));
}

SystemError folderError(std::string_view call, const std::string& path) {
  return lastSystemError(fmt::format("notify center, {} ({})", call, path));
}

}  // namespace

NotifyFolder::NotifyFolder(std::string path, Sharing sharing)
    : path_(std::move(path)), sharing_(sharing) {}

std::string NotifyFolder::fileName(std::string_view name) {
  const bool isPlain = name.size() <= longestPlainName && isFileName(name) && name.front() != '.' &&
                       name.front() != hashMark;
  if (isPlain) return std::string(name);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (EVP_Digest(name.data(), name.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    fatal("NotifyFolder: the system has no SHA-256");
  }
  std::string file(1, hashMark);
  for (unsigned i = 0; i < size; ++i) file += fmt::format("{:02x}", digest.at(i));
  return file;
}

void NotifyFolder::requirePath() const {
  if (path_.empty()) throw SystemError(ENOENT, "notify center, no folder for this user's sockets");
}

UniqueFd NotifyFolder::make() const {
  requirePath();
  const bool isForAll = sharing_ == Sharing::all;
  const auto makeFolder = [&] { return ::mkdir(path_.c_str(), isForAll ? 0755 : 0700) == 0; };
  bool isNew = makeFolder();
  if (!isNew && errno == ENOENT && !isForAll) {
    Directories::shared().runtime();  // makes the folder above it again
    isNew = makeFolder();
  }
  if (!isNew && errno != EEXIST) throw folderError("mkdir", path_);
  if (isNew && isForAll && ::chmod(path_.c_str(), allMayAdd) != 0) {
    throw folderError("chmod", path_);
  }
  UniqueFd folder(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (!folder || ::fstat(folder.get(), &status) != 0) throw folderError("open", path_);
  const bool isOwn = status.st_uid == ::geteuid();
  const bool isSafe = isForAll ? (isOwn || status.st_uid == 0) &&
                                     ((status.st_mode & 0022U) == 0 || (status.st_mode & S_ISVTX))
                               : isOwn && (status.st_mode & 0077U) == 0;
  if (!isSafe) throw SystemError(EPERM, "notify center, others may change the folder " + path_);
  return folder;
}

// Nothing, with errno EINVAL, for what can't be a file of ours.
UniqueFd NotifyFolder::openExisting(const std::string& file, int access,
                                    std::size_t maxSize) const noexcept {
  UniqueFd fd(
      ::open(pathOf(file).c_str(), access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) return {};
  const bool isAcceptable = S_ISREG(status.st_mode) && status.st_nlink <= 1 &&
                            static_cast<std::size_t>(status.st_size) <= maxSize &&
                            (sharing_ == Sharing::all || status.st_uid == ::geteuid());
  if (isAcceptable) return fd;
  errno = EINVAL;
  return {};
}

NotifyFolder::Look NotifyFolder::look(const std::string& file) const noexcept {
  const UniqueFd fd = openExisting(file, O_RDONLY, std::string::npos);
  if (!fd) return {errno == ENOENT ? State::absent : State::refused, {}, errno};
  Header header;
  const ssize_t size = ::pread(fd.get(), &header, sizeof header, 0);
  if (size < 0) return {State::refused, {}, errno};
  // Just made, or its poster died before the write.
  const bool isWhole = static_cast<std::size_t>(size) == sizeof header &&
                       header.flipped == flipped(header.generation);
  if (!isWhole) return {State::busy, {}, 0};
  return {State::posted, header.generation, 0};
}

UniqueFd NotifyFolder::create(const std::string& file) const {
  if (sharing_ == Sharing::all) return createForAll(file);
  return UniqueFd(
      ::open(pathOf(file).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

// The process's umask must not keep others from posting, not even for a moment: the file gets its
// mode before it gets its name.
UniqueFd NotifyFolder::createForAll(const std::string& file) const noexcept {
  static std::atomic<unsigned> count{0};
  const std::string fresh =
      fmt::format("{}/.{}.{}.{}", path_, ::getpid(), currentThreadId(), count.fetch_add(1));
  UniqueFd fd(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) return fd;
  if (::fchmod(fd.get(), allMayPost) == 0 &&
      ::renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, pathOf(file).c_str(), RENAME_NOREPLACE) == 0) {
    return fd;
  }
  const int error = errno;
  ::unlink(fresh.c_str());
  errno = error;
  return {};
}

bool NotifyFolder::post(std::string_view name) const {
  requirePath();
  const std::string file = fileName(name);
  const std::string bytes = content(name);
  // Another turn when the folder was missing, or somebody else made or removed the file meanwhile.
  constexpr int maxTurns = 100;
  for (int turn = 0; turn < maxTurns; ++turn) {
    UniqueFd fd = openExisting(file, O_WRONLY, bytes.size());
    const bool isNew = !fd && errno == ENOENT;
    if (isNew) {
      fd = create(file);
      if (!fd && errno == EEXIST) continue;
      if (!fd && errno == ENOENT) {
        make();
        continue;
      }
    }
    if (!fd) throw postError("open", pathOf(file));
    const ssize_t size =
        retryInterrupted([&] { return ::pwrite(fd.get(), bytes.data(), bytes.size(), 0); });
    if (size < 0) throw postError("pwrite", pathOf(file));
    if (static_cast<std::size_t>(size) < bytes.size()) {
      throw SystemError(ENOSPC, fmt::format("post(_:), pwrite ({})", pathOf(file)));
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) == 0 && status.st_nlink > 0) return isNew;
  }
  throw SystemError(EBUSY, fmt::format("post(_:), open ({})", pathOf(file)));
}

void NotifyFolder::sweep() const noexcept {
  struct Close {
    void operator()(DIR* folder) const { ::closedir(folder); }
  };
  const std::unique_ptr<DIR, Close> folder(::opendir(path_.c_str()));
  if (!folder) return;
  const std::time_t limit = std::time(nullptr) - quietSeconds;
  while (const dirent* entry = ::readdir(folder.get())) {
    struct stat status {};
    const int parent = ::dirfd(folder.get());
    const bool isThere = ::fstatat(parent, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    // In a folder for all, only the owner's try succeeds.
    if (isThere && S_ISREG(status.st_mode) && status.st_mtime < limit) {
      ::unlinkat(parent, entry->d_name, 0);
    }
  }
}

}  // namespace velum
