#include "Velum/Platform/FileClone.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <new>
#include <optional>
#include <vector>

#include "Velum/Base/Progress.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/LockedFile.h"
#include "Velum/Files/TemporaryFile.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

/// The copy, which takes the target's place when it is complete. Where the file system allows it,
/// it has no name until then, so that not even a killed process leaves a partial file behind.
/// Throws SystemError.
class Replacement {
 public:
  explicit Replacement(const std::string& target)
      : target_(target),
        name_(target.substr(target.find_last_of('/') + 1)),
        folder_(name_ == target ? "./" : target.substr(0, target.size() - name_.size())) {
    int error = 0;
    // Locked before it has a name, by which the next copy would find what this process, killed, had
    // left.
    nameless_.emplace(
        [&] {
          UniqueFd file = open(folder_ + '.', O_WRONLY | O_TMPFILE);
          error = file ? 0 : errno;
          return file;
        },
        std::chrono::nanoseconds(0));
    if (error == 0) return;
    if (error != EOPNOTSUPP && error != EISDIR && error != EINVAL) throw SystemError(error, "open");
    place_ = open(folder_, O_PATH | O_DIRECTORY);
    if (!place_) throw lastSystemError("open");
    named_.emplace(place_.get(), folder_, name_, "Replacement");
  }

  int fd() const noexcept { return named_ ? named_->get() : nameless_->get(); }

  void publish() {
    if (named_) {
      named_->takePlace("Replacement");
    } else if (!giveName(target_)) {
      if (errno != EEXIST) throw lastSystemError("link");
      replaceOld();
    }
  }

 private:
  static UniqueFd open(const std::string& path, int flags) {
    return UniqueFd(
        retryInterrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC, ownerOnly); }));
  }

  bool giveName(const std::string& path) const {
    const std::string source = "/proc/self/fd/" + std::to_string(nameless_->get());
    return ::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
  }

  /// A name can't be given twice, only taken over.
  void replaceOld() const {
    TemporaryFile::removeAbandoned(open(folder_, O_RDONLY | O_DIRECTORY), name_);
    const std::string temporary = folder_ + TemporaryFile::anyName(name_);
    if (!giveName(temporary)) throw lastSystemError("link");
    if (::rename(temporary.c_str(), target_.c_str()) == 0) return;
    const int error = errno;
    ::unlink(temporary.c_str());
    throw SystemError(error, "rename");
  }

  static constexpr mode_t ownerOnly = 0600;

  std::string target_;
  std::string name_;
  std::string folder_;  // with a slash at its end
  std::optional<LockedFile> nameless_;
  UniqueFd place_;  // the folder, where there must be a name at once
  std::optional<TemporaryFile> named_;
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
int cloneOf(const std::string& source, const std::string& target, const Progress* progress) try {
  // Non-blocking, so that a FIFO at the path is an error and not a wait.
  const UniqueFd from(
      retryInterrupted([&] { return ::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
  struct stat status {};
  if (!from || ::fstat(from.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  Replacement replacement(target);
  if (const int error = copyContent(from.get(), replacement.fd(), progress).error) return error;
  if (!copyAttributes(replacement.fd(), status)) return errno;
  replacement.publish();
  return 0;
} catch (const SystemError& error) {
  return error.code();
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

}  // namespace

void cloneFile(const std::string& source, const std::string& target, const Progress* progress) {
  if (const int error = cloneOf(source, target, progress)) {
    throw SystemError(error, "clonefile(_:to:), copyfile (" + source + ", " + target + ")");
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
