#include "Velum/Platform/Linux/NotifyFolderLinux.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "Velum/Fatal.h"
#include "Velum/KeepOpenSsl.h"
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
  std::string bytes;
  bytes.reserve(sizeof header + name.size());
  bytes.append(reinterpret_cast<const char*>(&header), sizeof header);  // NOLINT: its bytes
  bytes.append(name);
  return bytes;
}

SystemError postError(std::string_view call, const std::string& path) {
  return lastSystemError(fmt::format("post(_:), {} ({})", call, path));
}

SystemError folderError(std::string_view call, const std::string& path) {
  return lastSystemError(fmt::format("notify center, {} ({})", call, path));
}

void write(const NotifyFile& file, const std::string& path, std::string_view bytes) {
  const ssize_t size =
      retryInterrupted([&] { return ::pwrite(file.fd.get(), bytes.data(), bytes.size(), 0); });
  if (size < 0) throw postError("pwrite", path);
  if (static_cast<std::size_t>(size) < bytes.size()) {
    throw SystemError(ENOSPC, fmt::format("post(_:), pwrite ({})", path));
  }
}

/// Whether that very file still stands at the path: nobody removed or moved it, or its folder, or
/// gave it away.
bool isAt(const NotifyFile& file, const std::string& path) noexcept {
  struct stat present {};
  return ::lstat(path.c_str(), &present) == 0 && present.st_ino == file.inode &&
         present.st_dev == file.device && present.st_uid == file.owner;
}

UniqueFd createNew(const std::string& path) {
  constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  return UniqueFd(retryInterrupted([&] { return ::open(path.c_str(), flags, 0600); }));
}

}  // namespace

RecentNotifyFiles::File RecentNotifyFiles::find(const std::string& name) {
  const std::lock_guard guard(lock_);
  const auto* const place = std::ranges::find(entries_, name, &Entry::name);
  return place == entries_.end() ? nullptr : place->file;
}

void RecentNotifyFiles::keep(const std::string& name, File file) {
  Entry entry{name, std::move(file)};  // then the one it replaces, which is closed after the lock
  const std::lock_guard guard(lock_);
  auto* place = std::ranges::find(entries_, name, &Entry::name);
  if (place == entries_.end()) place = &entries_.at(next_++ % maxFiles);
  std::swap(*place, entry);
}

void RecentNotifyFiles::forget(const std::string& name) {
  File old;  // closed after the lock
  const std::lock_guard guard(lock_);
  auto* const place = std::ranges::find(entries_, name, &Entry::name);
  if (place != entries_.end()) old.swap(place->file);
}

void RecentNotifyFiles::forgetAll() {
  Entries old;  // closed after the lock
  const std::lock_guard guard(lock_);
  old.swap(entries_);
}

NotifyFolder::NotifyFolder(std::string path, Sharing sharing)
    : path_(std::move(path)), sharing_(sharing) {}

std::string NotifyFolder::fileName(std::string_view name) {
  const bool isPlain = name.size() <= longestPlainName && isFileName(name) && name.front() != '.' &&
                       name.front() != hashMark;
  // 32 bits of FNV-1a: all processes must agree, whatever their standard library.
  std::uint32_t hash = 2166136261U;
  for (const char character : name) {
    hash = (hash ^ static_cast<unsigned char>(character)) * 16777619U;
  }
  std::string file{static_cast<char>('0' + hash % groups), '/'};
  if (isPlain) return file.append(name);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  if (EVP_Digest(name.data(), name.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
    throw SystemError(ENOSYS, "notify center, SHA-256 (which is gone while a process ends)");
  }
  file += hashMark;
  for (unsigned i = 0; i < size; ++i) file += fmt::format("{:02x}", digest.at(i));
  return file;
}

void NotifyFolder::requirePath() const {
  if (path_.empty()) {
    throw SystemError(ENOENT, "notify center, XDG_RUNTIME_DIR or TMPDIR, a folder for this user");
  }
}

bool NotifyFolder::isSafe(const struct stat& status) const noexcept {
  const bool isOwn = status.st_uid == ::geteuid();
  if (sharing_ == Sharing::user) return isOwn && (status.st_mode & 0077U) == 0;
  return (isOwn || status.st_uid == 0) &&
         ((status.st_mode & 0022U) == 0 || (status.st_mode & S_ISVTX) != 0);
}

UniqueFd NotifyFolder::openFolder(const std::string& path, bool mayMake) const {
  const bool isForAll = sharing_ == Sharing::all;
  const bool isNew = mayMake && ::mkdir(path.c_str(), isForAll ? 0755 : 0700) == 0;
  if (mayMake && !isNew && errno != EEXIST) throw folderError("mkdir", path);
  if (isNew && isForAll && ::chmod(path.c_str(), allMayAdd) != 0) {
    throw folderError("chmod", path);
  }
  UniqueFd folder(retryInterrupted(
      [&] { return ::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  struct stat status {};
  if (!folder || ::fstat(folder.get(), &status) != 0) throw folderError("open", path);
  if (!isSafe(status)) {
    throw SystemError(EPERM, "notify center, others may change the folder " + path);
  }
  return folder;
}

UniqueFd NotifyFolder::make() const {
  requirePath();
  if (sharing_ == Sharing::all) {
    UniqueFd folder = openFolder(path_, true);
    if (mayMakeGroups()) {
      for (std::size_t group = 0; group < groups; ++group) makeGroup(group);
    }
    return folder;
  }
  try {
    return openFolder(path_, true);
  } catch (const SystemError& error) {
    if (error.code() != ENOENT) throw;
  }
  Directories::shared().runtime();  // makes the folder above it again
  return openFolder(path_, true);
}

// In a folder for all, only its owner does: whoever made a group could remove others' files.
bool NotifyFolder::mayMakeGroups() const noexcept {
  if (sharing_ == Sharing::user) return true;
  struct stat status {};
  return ::lstat(path_.c_str(), &status) == 0 && status.st_uid == ::geteuid();
}

UniqueFd NotifyFolder::makeGroup(std::size_t group) const {
  return openFolder(path_ + '/' + std::to_string(group), mayMakeGroups());
}

// Null, with errno EINVAL, for what can't be a file of ours.
NotifyFolder::File NotifyFolder::openExisting(const std::string& file, int access,
                                              std::size_t maxSize) const {
  const std::string path = pathOf(file);
  const int flags = access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  UniqueFd fd(retryInterrupted([&] { return ::open(path.c_str(), flags); }));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) return nullptr;
  const bool isAcceptable = S_ISREG(status.st_mode) && status.st_nlink <= 1 &&
                            static_cast<std::size_t>(status.st_size) <= maxSize &&
                            (sharing_ == Sharing::all || status.st_uid == ::geteuid());
  if (!isAcceptable) {
    fd.reset();
    errno = EINVAL;
    return nullptr;
  }
  return std::make_shared<const NotifyFile>(NotifyFile{std::move(fd), status.st_dev, status.st_ino,
                                                       status.st_uid,
                                                       static_cast<std::size_t>(status.st_size)});
}

// A file of somebody who lets others only read is read as well, but not kept.
NotifyFolder::File NotifyFolder::openForLook(const std::string& file) const {
  if (auto kept = recent_.find(file)) return kept;
  auto opened = openExisting(file, O_RDWR, std::string::npos);
  if (opened) {
    recent_.keep(file, opened);
  } else if (errno == EACCES) {
    opened = openExisting(file, O_RDONLY, std::string::npos);
  }
  return opened;
}

NotifyFolder::Look NotifyFolder::look(const std::string& file) const noexcept {
  // Nobody watched where it stands.
  if (const auto kept = recent_.find(file); kept && !isAt(*kept, pathOf(file))) {
    recent_.forget(file);
  }
  return lookAgain(file);
}

NotifyFolder::Look NotifyFolder::lookAgain(const std::string& file) const noexcept {
  const File opened = openForLook(file);
  if (!opened) return {errno == ENOENT ? State::absent : State::refused, {}, errno};
  Header header;
  const ssize_t size = ::pread(opened->fd.get(), &header, sizeof header, 0);
  if (size < 0) return {State::refused, {}, errno};
  // Just made, or its poster died before the write.
  const bool isWhole = static_cast<std::size_t>(size) == sizeof header &&
                       header.flipped == flipped(header.generation);
  if (!isWhole) return {State::busy, {}, 0};
  return {State::posted, header.generation, 0};
}

NotifyFolder::File NotifyFolder::create(const std::string& file) const {
  UniqueFd fd = sharing_ == Sharing::all ? createForAll(file) : createNew(pathOf(file));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) return nullptr;
  return std::make_shared<const NotifyFile>(NotifyFile{std::move(fd), status.st_dev, status.st_ino,
                                                       status.st_uid,
                                                       static_cast<std::size_t>(status.st_size)});
}

// The process's umask must not keep others from posting, not even for a moment: the file gets its
// mode before it gets its name.
UniqueFd NotifyFolder::createForAll(const std::string& file) const noexcept {
  static std::atomic<unsigned> count{0};
  const std::string fresh = fmt::format("{}/{}/.{}.{}.{}", path_, groupOf(file), ::getpid(),
                                        currentThreadId(), count.fetch_add(1));
  UniqueFd fd = createNew(fresh);
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

// Null when it has to be tried once more: the folder was missing, or somebody else made the file
// meanwhile.
NotifyFolder::File NotifyFolder::openForPost(const std::string& file, std::size_t maxSize,
                                             bool& isNew) const {
  isNew = false;
  if (auto kept = recent_.find(file); kept && kept->size <= maxSize) return kept;
  auto opened = openExisting(file, O_RDWR, maxSize);
  isNew = !opened && errno == ENOENT;
  if (isNew) opened = create(file);
  if (isNew && !opened && errno == ENOENT) {
    make();
    try {
      makeGroup(groupOf(file));
    } catch (const SystemError& error) {
      if (error.code() != ENOENT) throw;  // else it was removed meanwhile
    }
    return nullptr;
  }
  if (isNew && !opened && errno == EEXIST) return nullptr;
  if (!opened) throw postError("open", pathOf(file));
  recent_.keep(file, opened);
  return opened;
}

bool NotifyFolder::post(std::string_view name) const {
  requirePath();
  const std::string file = fileName(name);
  const std::string path = pathOf(file);
  const std::string bytes = content(name);
  constexpr int maxTurns = 100;
  for (int turn = 0; turn < maxTurns; ++turn) {
    bool isNew = false;
    const File opened = openForPost(file, bytes.size(), isNew);
    if (!opened) continue;
    write(*opened, path, bytes);
    if (isAt(*opened, path)) return isNew;
    recent_.forget(file);
  }
  throw SystemError(EBUSY, fmt::format("post(_:), open ({})", path));
}

void NotifyFolder::sweep() const noexcept {
  for (std::size_t group = 0; group < groups; ++group) sweepGroup(group);
}

void NotifyFolder::sweepGroup(std::size_t group) const noexcept {
  struct Close {
    void operator()(DIR* folder) const { ::closedir(folder); }
  };
  const std::unique_ptr<DIR, Close> folder(
      ::opendir((path_ + '/' + std::to_string(group)).c_str()));
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
