#include "Velum/Files/PrivateFolder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/AtomicFile.h"

namespace velum {
namespace {

constexpr mode_t ownerOnlyFile = 0600;
constexpr mode_t ownerOnlyFolder = 0700;
constexpr mode_t groupAndOthers = 0077;

struct stat statusOf(int fd, const std::string& path) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) throw lastSystemError("fstat (" + path + ")");
  return status;
}

void requireOwnerOnly(const struct stat& status, const std::string& path) {
  if (status.st_uid != ::geteuid() || (status.st_mode & groupAndOthers) != 0) {
    throw SystemError(EPERM, "not closed to other users: " + path);
  }
}

/// Never waits for the other end of a FIFO, never follows a link.
UniqueFd openGuarded(int folder, const char* name, int flags) {
  constexpr int always = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return UniqueFd(
      retryInterrupted([&] { return ::openat(folder, name, flags | always, ownerOnlyFile); }));
}

using Requirement = void (*)(const struct stat& status, const std::string& path);

std::optional<SecretBytes> readGuarded(int folder, const char* name, const std::string& path,
                                       std::size_t maximumSize, Requirement require) {
  const UniqueFd file = openGuarded(folder, name, O_RDONLY);
  if (!file && errno == ENOENT) return std::nullopt;
  if (!file) throw lastSystemError("open (" + path + ")");
  const struct stat status = statusOf(file.get(), path);
  if (!S_ISREG(status.st_mode)) throw SystemError(EINVAL, "not a file: " + path);
  require(status, path);
  if (static_cast<std::size_t>(status.st_size) > maximumSize) {
    throw SystemError(EFBIG, "too large: " + path);
  }
  // One byte more than the size, so that the end shows. Files here are replaced, never extended.
  SecretBytes content(static_cast<std::size_t>(status.st_size) + 1);
  std::size_t length = 0;
  while (length < content.size()) {
    const ssize_t count = retryInterrupted(
        [&] { return ::read(file.get(), content.data() + length, content.size() - length); });
    if (count < 0) throw lastSystemError("read (" + path + ")");
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length == content.size()) throw SystemError(EBUSY, "grows: " + path);
  content.resize(length);
  return content;
}

/// Makes the folders above `path`, which are no business of other users either.
void makeParents(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    ::mkdir(path.substr(0, slash).c_str(), ownerOnlyFolder);  // what fails shows when opening
  }
}

}  // namespace

PrivateFolder::PrivateFolder(std::string path) : path_(std::move(path)) {
  const auto open = [&] {
    return retryInterrupted(
        [&] { return ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
  };
  folder_.reset(open());
  if (!folder_ && errno == ENOENT) {
    makeParents(path_);
    if (::mkdir(path_.c_str(), ownerOnlyFolder) != 0 && errno != EEXIST) {
      throw lastSystemError("mkdir (" + path_ + ")");
    }
    folder_.reset(open());
  }
  if (!folder_) throw lastSystemError("open (" + path_ + ")");
  requireOwnerOnly(statusOf(folder_.get(), path_), path_);
}

bool PrivateFolder::has(const char* name) const {
  struct stat status {};
  if (::fstatat(folder_.get(), name, &status, AT_SYMLINK_NOFOLLOW) == 0) return true;
  if (errno != ENOENT) throw lastSystemError("fstatat (" + pathOf(name) + ")");
  return false;
}

std::optional<SecretBytes> PrivateFolder::read(const char* name, std::size_t maximumSize) const {
  return readGuarded(folder_.get(), name, pathOf(name), maximumSize, requireOwnerOnly);
}

void PrivateFolder::replace(const char* name, ByteView content) const {
  AtomicFile(pathOf(name), ownerOnlyFile).replaceIn(folder_.get(), textView(content), "replace");
}

UniqueFd PrivateFolder::openLock(const char* name) const {
  UniqueFd file = openGuarded(folder_.get(), name, O_RDWR | O_CREAT);
  if (!file) throw lastSystemError("open (" + pathOf(name) + ")");
  requireOwnerOnly(statusOf(file.get(), pathOf(name)), pathOf(name));
  return file;
}

std::optional<SecretBytes> readCredential(const std::string& path, std::size_t maximumSize) {
  return readGuarded(AT_FDCWD, path.c_str(), path, maximumSize, [](const auto& status, auto& name) {
    constexpr mode_t othersOrGroupWrite = 0027;
    const bool isTrusted = status.st_uid == ::geteuid() || status.st_uid == 0;
    if (!isTrusted || (status.st_mode & othersOrGroupWrite) != 0) {
      throw SystemError(EPERM, "not closed to other users: " + name);
    }
  });
}

}  // namespace velum
