#include "Velum/Platform/Linux/Notify/NotifyFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/random.h>
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

#include "Velum/Base/Fatal.h"
#include "Velum/Base/KeepOpenSsl.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Directories.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

constexpr std::chrono::minutes sweepPause{1};
constexpr std::size_t longestPlainName = 200;
constexpr char hashMark = '=';
constexpr char posterMark = '#';
constexpr mode_t allMayRead = 0644;
constexpr mode_t allMayEnter = 0755;
constexpr mode_t allMayAdd = 01777;
constexpr mode_t permissions = 07777;
constexpr mode_t othersMayWrite = 0022;

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

void write(const NotifyFile& file, std::string_view bytes) {
  const ssize_t size =
      retryInterrupted([&] { return ::pwrite(file.fd.get(), bytes.data(), bytes.size(), 0); });
  if (size < 0) throw postError("pwrite", file.path);
  if (static_cast<std::size_t>(size) < bytes.size()) {
    throw SystemError(ENOSPC, fmt::format("post(_:), pwrite ({})", file.path));
  }
}

UniqueFd openFolderAt(int parent, const char* name) noexcept {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  return UniqueFd(retryInterrupted([&] { return ::openat(parent, name, flags); }));
}

// Where the name of a file in its group begins.
const char* entryOf(const std::string& file) noexcept {
  return file.c_str() + 2;
}

// What stays until somebody changes it on purpose.
bool isRefusal(int error) noexcept {
  constexpr std::array<int, 6> refusals{EINVAL, ELOOP, ENXIO, EISDIR, EACCES, EPERM};
  return std::ranges::find(refusals, error) != refusals.end();
}

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using Listing = std::unique_ptr<DIR, CloseFolder>;

Listing listed(UniqueFd folder) noexcept {
  if (!folder) return nullptr;
  Listing listing(::fdopendir(folder.get()));
  if (listing) static_cast<void>(folder.release());
  return listing;
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
                       name.front() != hashMark && name.find(posterMark) == std::string_view::npos;
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

std::string NotifyFolder::nameOf(std::size_t group, std::string_view entry) const {
  // What has no mark is nobody's file: the empty name, which nobody observes.
  const std::size_t mark = entry.rfind(posterMark);
  if (sharing_ == Sharing::all) entry = entry.substr(0, mark == std::string_view::npos ? 0 : mark);
  return std::string{static_cast<char>('0' + group), '/'}.append(entry);
}

void NotifyFolder::requirePath() const {
  if (path_.empty()) {
    throw SystemError(ENOENT, "notify center, XDG_RUNTIME_DIR or TMPDIR, a folder for this user");
  }
}

UniqueFd NotifyFolder::openTop(bool mayMake) const {
  const bool isForAll = sharing_ == Sharing::all;
  if (mayMake && ::mkdir(path_.c_str(), isForAll ? allMayEnter : 0700) != 0 && errno != EEXIST) {
    throw folderError("mkdir", path_);
  }
  UniqueFd folder = openFolderAt(AT_FDCWD, path_.c_str());
  struct stat status {};
  if (!folder || ::fstat(folder.get(), &status) != 0) throw folderError("open", path_);
  const bool isOwn = status.st_uid == ::geteuid();
  const bool isSafe = isForAll
                          ? (isOwn || status.st_uid == 0) && (status.st_mode & othersMayWrite) == 0
                          : isOwn && (status.st_mode & 0077U) == 0;
  if (!isSafe) {
    throw SystemError(EPERM, "notify center, others may change the folder " + path_);
  }
  // Just made, with the process's umask, or whoever made it came no further.
  const bool isReady = !isForAll || !isOwn || (status.st_mode & allMayEnter) == allMayEnter;
  if (!isReady && ::fchmod(folder.get(), allMayEnter) != 0) throw folderError("fchmod", path_);
  return folder;
}

// Nobody but its owner can put anything into the folder above.
UniqueFd NotifyFolder::openGroup(const UniqueFd& top, std::size_t group, bool mayMake) const {
  const std::string name = std::to_string(group);
  const std::string path = path_ + '/' + name;
  struct stat above {};
  if (::fstat(top.get(), &above) != 0) throw folderError("fstat", path_);
  const bool isForAll = sharing_ == Sharing::all;
  const bool isOwn = above.st_uid == ::geteuid();
  if (mayMake && isOwn && ::mkdirat(top.get(), name.c_str(), 0700) != 0 && errno != EEXIST) {
    throw folderError("mkdir", path);
  }
  UniqueFd folder = openFolderAt(top.get(), name.c_str());
  struct stat status {};
  if (!folder || ::fstat(folder.get(), &status) != 0) throw folderError("open", path);
  if (status.st_uid != above.st_uid) {
    throw SystemError(EPERM, "notify center, another user owns the folder " + path);
  }
  // Just made, or whoever made it came no further.
  const bool isReady = !isForAll || !isOwn || (status.st_mode & permissions) == allMayAdd;
  if (!isReady && ::fchmod(folder.get(), allMayAdd) != 0) throw folderError("fchmod", path);
  return folder;
}

UniqueFd NotifyFolder::make() const {
  requirePath();
  if (sharing_ == Sharing::all) {
    // Only the system's folder is there before the first process, made by root.
    UniqueFd folder = openTop(true);
    struct stat status {};
    const bool isOwn = ::fstat(folder.get(), &status) == 0 && status.st_uid == ::geteuid();
    for (std::size_t group = 0; isOwn && group < groups; ++group) openGroup(folder, group, true);
    return folder;
  }
  try {
    return openTop(true);
  } catch (const SystemError& error) {
    if (error.code() != ENOENT) throw;
  }
  Directories::shared().runtime();  // makes the folder above it again
  return openTop(true);
}

UniqueFd NotifyFolder::makeGroup(std::size_t group) const {
  return openGroup(openTop(false), group, true);
}

// Null, with errno, when there is none.
UniqueFd NotifyFolder::existingGroup(std::size_t group) const noexcept try {
  return openGroup(openTop(false), group, false);
} catch (const SystemError& error) {
  errno = error.code();
  return {};
}

std::vector<std::string> NotifyFolder::entriesOf(std::size_t group) const {
  const Listing listing = listed(existingGroup(group));
  if (!listing && errno == ENOENT) return {};
  const std::string path = path_ + '/' + std::to_string(group);
  if (!listing) throw folderError("opendir", path);
  std::vector<std::string> entries;
  errno = 0;
  while (const dirent* entry = ::readdir(listing.get())) entries.emplace_back(entry->d_name);
  if (errno != 0) throw folderError("readdir", path);
  return entries;
}

std::vector<std::string> NotifyFolder::filesOf(const std::string& name) const {
  if (sharing_ == Sharing::user) return {name};
  const std::size_t group = groupOf(name);
  std::vector<std::string> files;
  for (const std::string& entry : entriesOf(group)) {
    if (nameOf(group, entry) == name) files.push_back(std::string{name.front(), '/'} + entry);
  }
  return files;
}

void NotifyFolder::forget(const std::string& file) const {
  recent_.forget(file);
  // In a folder for all, the own one is kept under its name.
  if (sharing_ == Sharing::all) recent_.forget(nameOf(groupOf(file), entryOf(file)));
}

/// Whether that very file still stands at its path: nobody removed or moved it, or its folder, or
/// gave it away.
bool NotifyFolder::isAt(const NotifyFile& file) noexcept {
  struct stat present {};
  return ::lstat(file.path.c_str(), &present) == 0 && present.st_ino == file.inode &&
         present.st_dev == file.device && present.st_uid == file.owner;
}

// Null, with errno EINVAL, for what can't be a file of ours.
NotifyFolder::File NotifyFolder::openExisting(const UniqueFd& group, const std::string& file,
                                              int access) const noexcept {
  const int flags = access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  UniqueFd fd(retryInterrupted([&] { return ::openat(group.get(), entryOf(file), flags); }));
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) return nullptr;
  const bool isAcceptable = S_ISREG(status.st_mode) && status.st_nlink <= 1 &&
                            (sharing_ == Sharing::all || status.st_uid == ::geteuid());
  if (!isAcceptable) {
    fd.reset();
    errno = EINVAL;
    return nullptr;
  }
  return std::make_shared<const NotifyFile>(
      NotifyFile{std::move(fd), status.st_dev, status.st_ino, status.st_uid, pathOf(file)});
}

// A file of somebody who lets others only read is read as well, but not kept.
NotifyFolder::File NotifyFolder::openForReading(const std::string& file) const noexcept {
  if (auto kept = recent_.find(file)) return kept;
  const UniqueFd group = existingGroup(groupOf(file));
  if (!group) return nullptr;
  auto opened = openExisting(group, file, O_RDWR);
  if (opened) {
    recent_.keep(file, opened);
  } else if (errno == EACCES) {
    opened = openExisting(group, file, O_RDONLY);
  }
  return opened;
}

NotifyFolder::LastPost NotifyFolder::read(const std::string& file) const noexcept {
  // Nobody watched where it stands.
  if (const auto kept = recent_.find(file); kept && !isAt(*kept)) recent_.forget(file);
  return readWatched(file);
}

NotifyFolder::LastPost NotifyFolder::readWatched(const std::string& file) const noexcept {
  const auto failed = [](int error) -> LastPost {
    if (error == ENOENT) return {};
    return {isRefusal(error) ? State::refused : State::unread, {}, 0, error};
  };
  const File opened = openForReading(file);
  if (!opened) return failed(errno);
  Header header;
  const ssize_t size =
      retryInterrupted([&] { return ::pread(opened->fd.get(), &header, sizeof header, 0); });
  if (size < 0) return failed(errno);
  // Just made, or its poster died before the write.
  const bool isWhole = static_cast<std::size_t>(size) == sizeof header &&
                       header.flipped == flipped(header.generation);
  if (!isWhole) return {State::busy, {}, 0, 0};
  return {State::posted, header.generation, opened->owner, 0};
}

// Null, with errno; EEXIST for a file of somebody else.
NotifyFolder::File NotifyFolder::openOrCreate(const UniqueFd& group, const std::string& file,
                                              bool& isNew) const {
  isNew = false;
  auto opened = openExisting(group, file, O_RDWR);
  if (!opened && errno == ENOENT) {
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const UniqueFd made(
        retryInterrupted([&] { return ::openat(group.get(), entryOf(file), flags, 0600); }));
    isNew = static_cast<bool>(made);
    // Made by another thread or process meanwhile: looked at as any other.
    if (made || errno == EEXIST) opened = openExisting(group, file, O_RDWR);
  }
  if (!opened || sharing_ == Sharing::user) return opened;
  if (opened->owner != ::geteuid()) {
    errno = EEXIST;
    return nullptr;
  }
  // The process's umask must not keep others from reading.
  return ::fchmod(opened->fd.get(), allMayRead) == 0 ? opened : nullptr;
}

// This user's file for what `fileName` gave. Null when it has to be tried once more, because the
// folder was missing or somebody was faster.
NotifyFolder::File NotifyFolder::openOwn(const std::string& name, bool& isNew) const {
  isNew = false;
  if (auto kept = recent_.find(name)) return kept;
  const UniqueFd group = existingGroup(groupOf(name));
  if (!group && errno != ENOENT) throw folderError("open", path_);
  if (!group) {
    make();
    try {
      makeGroup(groupOf(name));
    } catch (const SystemError& error) {
      if (error.code() != ENOENT || sharing_ == Sharing::all) throw;  // else removed meanwhile
    }
    return nullptr;
  }
  std::string file = name;
  if (sharing_ == Sharing::all) file += fmt::format("{}{}", posterMark, ::geteuid());
  auto opened = openOrCreate(group, file, isNew);
  if (!opened && sharing_ == Sharing::all && (errno == EEXIST || isRefusal(errno))) {
    std::uint64_t unknown = 0;
    const bool isRandom = ::getrandom(&unknown, sizeof unknown, 0) == sizeof unknown;
    if (!isRandom) throw postError("getrandom", file);
    file += fmt::format(".{:016x}", unknown);
    opened = openOrCreate(group, file, isNew);
  }
  if (!opened && errno == ENOENT) return nullptr;
  if (!opened) throw postError("open", pathOf(file));
  recent_.keep(name, opened);
  return opened;
}

void NotifyFolder::post(std::string_view name) const {
  requirePath();
  const std::string file = fileName(name);
  const std::string bytes = content(name);
  constexpr int maxTurns = 100;
  for (int turn = 0; turn < maxTurns; ++turn) {
    bool isNew = false;
    const File opened = openOwn(file, isNew);
    if (!opened) continue;
    write(*opened, bytes);
    if (isAt(*opened)) {
      if (isNew) sweepNowAndThen();
      return;
    }
    recent_.forget(file);
  }
  throw SystemError(EBUSY, fmt::format("post(_:), open ({})", pathOf(file)));
}

void NotifyFolder::sweepNowAndThen() const noexcept {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  auto next = nextSweep_.load(std::memory_order_relaxed);
  const auto pause = std::chrono::steady_clock::duration(sweepPause);
  if (now.count() < next || !nextSweep_.compare_exchange_strong(next, (now + pause).count())) {
    return;
  }
  sweep();
}

void NotifyFolder::sweep() const noexcept {
  for (std::size_t group = 0; group < groups; ++group) sweepGroup(group);
}

void NotifyFolder::sweepGroup(std::size_t group) const noexcept {
  const Listing folder = listed(existingGroup(group));
  if (!folder) return;
  const std::time_t now = std::time(nullptr);
  while (const dirent* entry = ::readdir(folder.get())) {
    struct stat status {};
    const int parent = ::dirfd(folder.get());
    const bool isThere = ::fstatat(parent, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
    // The time of a file may be set, also to one that never comes.
    const bool isQuiet =
        status.st_mtime < now - quietSeconds || status.st_mtime > now + quietSeconds;
    // In a folder for all, only the owner's try succeeds, and root's.
    if (isThere && !S_ISDIR(status.st_mode) && isQuiet) {
      ::unlinkat(parent, entry->d_name, 0);
    }
  }
}

}  // namespace velum
