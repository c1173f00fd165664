#include "Velum/Platform/FileClone.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>
#include <vector>

#include "Velum/Base/Progress.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

/// A new file in the target's folder that takes the target's place when it is complete. Removed
/// when abandoned; where the file system allows it, it has no name until then, so that not even a
/// killed process leaves a partial file behind.
class Replacement {
 public:
  explicit Replacement(const std::string& target) : target_(target) {
    const std::string folder = target.substr(0, target.find_last_of('/') + 1);
    fd_ = UniqueFd(retryInterrupted(
        [&] { return ::open((folder + ".").c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600); }));
    if (fd_ || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return;
    isNamed_ = takeName([this](const char* name) {
      constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
      fd_ = UniqueFd(retryInterrupted([&] { return ::open(name, flags, 0600); }));
      return bool{fd_};
    });
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;
  ~Replacement() {
    if (isNamed_) ::unlink(temporary_.c_str());
  }

  int fd() const noexcept { return fd_.get(); }

  bool publish() {
    if (!isNamed_) isNamed_ = takeName([this](const char* name) { return giveName(name); });
    if (!isNamed_ || ::rename(temporary_.c_str(), target_.c_str()) != 0) return false;
    isNamed_ = false;
    return true;
  }

 private:
  bool giveName(const char* name) const {
    const std::string source = "/proc/self/fd/" + std::to_string(fd_.get());
    return ::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, name, AT_SYMLINK_FOLLOW) == 0;
  }

  /// Tries names beside the target until `take`, which makes a file of that name, finds one free.
  template <class Take>
  bool takeName(Take take) {
    for (int attempt = 0; attempt < 100; ++attempt) {
      std::uint64_t number = 0;
      if (::getentropy(&number, sizeof number) != 0) return false;
      temporary_ = target_ + '.' + std::to_string(number);
      if (take(temporary_.c_str())) return true;
      if (errno != EEXIST) return false;
    }
    return false;
  }

  std::string target_;
  std::string temporary_;
  UniqueFd fd_;
  bool isNamed_ = false;
};

/// What is still to be copied, and where.
struct Span {
  int from;
  off_t fromOffset;
  int to;
  off_t toOffset;
  std::int64_t left;
  const Progress* progress = nullptr;

  bool isCancelled() const noexcept { return progress != nullptr && progress->isCancelled(); }
  void advance(ssize_t count) {
    fromOffset += count;
    toOffset += count;
    left -= count;
  }
};

// By hand, for file systems between which the kernel does not copy, and to see which side fails.
CopyOutcome copyThroughBuffer(Span span) {
  std::vector<char> buffer(1U << 20U);
  while (span.left > 0) {
    if (span.isCancelled()) return {.error = ECANCELED};
    const auto most = std::min(static_cast<std::uint64_t>(span.left), buffer.size());
    const ssize_t got =
        retryInterrupted([&] { return ::pread(span.from, buffer.data(), most, span.fromOffset); });
    if (got < 0) return {.error = errno, .isOfSource = true};
    if (got == 0) break;
    for (ssize_t done = 0; done < got;) {
      const ssize_t written = retryInterrupted([&] {
        return ::pwrite(span.to, buffer.data() + done, static_cast<std::size_t>(got - done),
                        span.toOffset + done);
      });
      if (written < 0) return {.error = errno};
      done += written;
    }
    span.advance(got);
  }
  return {};
}

CopyOutcome copySpan(Span span) {
  constexpr std::int64_t step = 8'388'608;  // what a slow disk still copies in a moment
  while (span.left > 0) {
    if (span.isCancelled()) return {.error = ECANCELED};
    // The kernel advances the offsets of the call, not those of the files.
    off_t from = span.fromOffset;
    off_t to = span.toOffset;
    const ssize_t copied = retryInterrupted([&] {
      return ::copy_file_range(span.from, &from, span.to, &to,
                               static_cast<std::size_t>(std::min(span.left, step)), 0);
    });
    // Nothing copied is the end of the file, or a file system that can't and does not say so; an
    // error may mean the same.
    if (copied <= 0) return copyThroughBuffer(span);
    span.advance(copied);
  }
  return {};
}

CopyOutcome copyContent(int from, int to, const Progress* progress) {
  if (::ioctl(to, FICLONE, from) == 0) return {};
  constexpr std::int64_t everything = std::numeric_limits<std::int64_t>::max() / 2;
  return copySpan({from, 0, to, 0, everything, progress});
}

// Only a privileged process may give files away, and a member of a group give them to it.
bool copyOwner(int to, const struct stat& status, mode_t& mode) {
  constexpr auto anybody = static_cast<uid_t>(-1);
  if (::fchown(to, status.st_uid, status.st_gid) == 0) return true;
  if (errno != EPERM) return false;
  struct stat own {};
  if (::fchown(to, anybody, status.st_gid) != 0 && errno != EPERM) return false;
  if (::fstat(to, &own) != 0) return false;
  mode &= 0777U;
  if (own.st_gid != status.st_gid) mode &= 0707U | (mode & 07U) << 3U;
  return true;
}

bool copyAttributes(int to, const struct stat& status) {
  mode_t mode = status.st_mode & 07777U;
  if (!copyOwner(to, status, mode) || ::fchmod(to, mode) != 0) return false;
  const std::array<timespec, 2> times{status.st_atim, status.st_mtim};
  return ::futimens(to, times.data()) == 0;
}

/// Returns 0 or an errno value.
int cloneOf(const std::string& source, const std::string& target, const Progress* progress) {
  // Non-blocking, so that a FIFO at the path is an error and not a wait.
  const UniqueFd from(
      retryInterrupted([&] { return ::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
  struct stat status {};
  if (!from || ::fstat(from.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  Replacement replacement(target);
  if (replacement.fd() < 0) return errno;
  if (const int error = copyContent(from.get(), replacement.fd(), progress).error) return error;
  return copyAttributes(replacement.fd(), status) && replacement.publish() ? 0 : errno;
}

}  // namespace

void cloneFile(const std::string& source, const std::string& target, const Progress* progress) {
  if (const int error = cloneOf(source, target, progress)) {
    throw SystemError(error, fmt::format("clonefile(_:to:), copyfile ({}, {})", source, target));
  }
}

CopyOutcome copyFileRange(int source, std::int64_t sourceOffset, int target,
                          std::int64_t targetOffset, std::int64_t size) noexcept try {
  return copySpan({source, sourceOffset, target, targetOffset, size});
} catch (const std::bad_alloc&) {
  return {.error = ENOMEM};
}

int setCreationTime(int descriptor, timespec /*time*/) noexcept {
  return ::fcntl(descriptor, F_GETFD) == -1 ? errno : 0;
}

}  // namespace velum
