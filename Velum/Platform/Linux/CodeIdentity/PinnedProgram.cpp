#include "Velum/Platform/Linux/CodeIdentity/PinnedProgram.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <memory>
#include <new>
#include <string_view>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/FileIdentity.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/Platform/Linux/CodeIdentity/CodeRefused.h"

namespace velum {
namespace {

constexpr const char* deleted = "its program was deleted or replaced since it started";
constexpr const char* touched = "its program was changed while it was looked at";
constexpr const char* unreadable = "its program can't be read: ";

bool isSameFile(const struct stat& one, const struct stat& other) {
  return FileIdentity::of(one) == FileIdentity::of(other);
}

bool isSameMoment(const timespec& one, const timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

[[noreturn]] void refuse(const char* what, int error) {
  throw CodeRefused(what + systemErrorText(error));
}

std::string pathOfDescriptor(int fd) {
  std::array<char, PATH_MAX> path{};
  const ssize_t size =
      ::readlink(fmt::format("/proc/self/fd/{}", fd).c_str(), path.data(), path.size());
  if (size <= 0) refuse("its program's path is unknown: ", errno);
  return {path.data(), static_cast<std::size_t>(size)};
}

/// The number by which /proc knows a pinned process. That folder may belong to another namespace
/// of processes than this one's, in which the number that pinned it is another process's. 0 when
/// it is not there at all, -1 when it has ended.
int numberInProc(int process) {
  constexpr std::size_t largest = 4096;
  constexpr std::string_view name = "\nPid:\t";
  const auto text = readRegularFile(fmt::format("/proc/self/fdinfo/{}", process), largest);
  if (!text) refuse("the process can't be looked up in /proc: ", errno);
  const std::size_t begin = text->find(name);
  int number = 0;
  if (begin != std::string::npos) {
    std::from_chars(text->data() + begin + name.size(), text->data() + text->size(), number);
  }
  return number;
}

std::string linkToProgram(int number) {
  return fmt::format("/proc/{}/exe", number);
}

}  // namespace

PinnedProgram::PinnedProgram(int pid, std::uint64_t maximumSize) {
  // Not through <sys/pidfd.h>: that header of glibc 2.36 is not usable from C++.
  process_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
  if (!process_ && (errno == ESRCH || errno == EINVAL || errno == ENOENT)) {
    throw CodeRefused("there is no such process");
  }
  if (!process_) refuse("the process can't be pinned: ", errno);

  number_ = numberInProc(process_.get());
  if (number_ == 0) {
    throw CodeRefused("/proc is another container's, and does not show the process");
  }
  file_.reset(::open(linkToProgram(number_).c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  const int error = errno;
  // As long as the pinned process was not reaped, the number above was its own.
  if (hasEnded()) throw CodeRefused("the process has ended");
  if (!file_ && (error == EACCES || error == EPERM)) {
    throw CodeRefused("not permitted to read its program; run this as its user or as root");
  }
  if (!file_ && error == ENOENT) {
    throw CodeRefused("its program can't be seen: it is a kernel thread, or hidden from users");
  }
  if (!file_ || ::fstat(file_.get(), &status_) != 0) refuse(unreadable, file_ ? errno : error);
  if (!S_ISREG(status_.st_mode)) throw CodeRefused("its program is not a regular file");
  if (static_cast<std::uint64_t>(status_.st_size) > maximumSize) {
    throw CodeRefused(
        fmt::format("its program has {} bytes, more than the {} that are read at most",
                    status_.st_size, maximumSize));
  }

  // A file may bear that name, and a deleted one may live on under another.
  path_ = pathOfDescriptor(file_.get());
  const bool isNamedDeleted = std::string_view(path_).ends_with(" (deleted)");
  if (status_.st_nlink == 0 || (isNamedDeleted && !folder())) throw CodeRefused(deleted);
}

bool PinnedProgram::hasEnded() const {
  pollfd state{process_.get(), POLLIN, 0};
  return retryInterrupted([&] { return ::poll(&state, 1, 0); }) != 0;
}

std::optional<std::string> PinnedProgram::attribute() const {
  const ssize_t size = ::fgetxattr(file_.get(), signatureAttribute, nullptr, 0);
  if (size < 0 && (errno == ENODATA || errno == ENOTSUP)) return std::nullopt;
  std::string bytes(size < 0 ? 0 : static_cast<std::size_t>(size), '\0');
  // Of no size at all, the call would say how long the attribute is by now.
  const ssize_t count =
      size <= 0 ? size : ::fgetxattr(file_.get(), signatureAttribute, bytes.data(), bytes.size());
  if (count < 0 && (errno == ERANGE || errno == ENODATA)) throw CodeRefused(touched);
  if (count < 0) refuse("its attribute user.velum.signature can't be read: ", errno);
  bytes.resize(static_cast<std::size_t>(count));
  return bytes;
}

/// The folder where the file is; none when its path leads to another file by now, or is one of
/// another container.
UniqueFd PinnedProgram::folder() const {
  const std::size_t slash = path_.rfind('/');
  if (slash == std::string::npos) return {};
  UniqueFd folder(::open(path_.substr(0, slash + 1).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat found {};
  const bool isThere = folder && ::fstatat(folder.get(), path_.c_str() + slash + 1, &found,
                                           AT_SYMLINK_NOFOLLOW) == 0;
  return isThere && isSameFile(found, status_) ? std::move(folder) : UniqueFd();
}

std::string PinnedProgram::signature() const {
  if (auto bytes = attribute()) return *std::move(bytes);
  const UniqueFd beside = folder();
  if (!beside) {
    throw CodeRefused(
        "its path leads elsewhere: it was moved, or runs in a container of its own, where only the "
        "attribute user.velum.signature is found");
  }
  const std::string name = path_.substr(path_.rfind('/') + 1) + signatureSuffix;
  const UniqueFd file(retryInterrupted([&] {
    return ::openat(beside.get(), name.c_str(),
                    O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  }));
  auto bytes = file ? readRegularFile(file.get(), maximumSignatureSize) : std::nullopt;
  if (!bytes && errno == ENOENT) {
    throw CodeRefused(
        "it is not signed: its program has neither a file NAME.p7s beside it nor the attribute "
        "user.velum.signature");
  }
  if (!bytes) refuse("the file NAME.p7s beside its program can't be read: ", errno);
  return *std::move(bytes);
}

std::vector<std::uint8_t> PinnedProgram::digest(const EVP_MD* algorithm) const {
  constexpr std::size_t pieceSize = std::size_t{64} << 10U;  // fits into the processor's cache
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(pieceSize);  // NOLINT: a buffer
  const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                   EVP_MD_CTX_free);
  if (!context || EVP_DigestInit_ex(context.get(), algorithm, nullptr) != 1) throw std::bad_alloc();
  std::int64_t length = 0;
  for (;;) {
    const ssize_t count =
        retryInterrupted([&] { return ::pread(file_.get(), piece.get(), pieceSize, length); });
    if (count < 0) refuse(unreadable, errno);
    if (count == 0) break;
    length += count;
    if (length > status_.st_size) throw CodeRefused(touched);
    EVP_DigestUpdate(context.get(), piece.get(), static_cast<std::size_t>(count));
  }
  std::vector<std::uint8_t> result(static_cast<std::size_t>(EVP_MD_get_size(algorithm)));
  if (EVP_DigestFinal_ex(context.get(), result.data(), nullptr) != 1) throw std::bad_alloc();
  return result;
}

void PinnedProgram::requireUnchanged() const {
  struct stat now {};
  if (::fstat(file_.get(), &now) != 0 || now.st_size != status_.st_size ||
      !isSameMoment(now.st_ctim, status_.st_ctim) || !isSameMoment(now.st_mtim, status_.st_mtim)) {
    throw CodeRefused(touched);
  }
  struct stat running {};
  const bool isKnown = ::stat(linkToProgram(number_).c_str(), &running) == 0;
  if (hasEnded()) throw CodeRefused("the process ended while it was looked at");
  if (!isKnown || !isSameFile(running, status_)) {
    throw CodeRefused("the process started another program while it was looked at");
  }
}

}  // namespace velum
