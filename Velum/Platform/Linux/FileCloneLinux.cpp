#include "Velum/Platform/FileClone.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {
namespace {

/// A new file in the target's folder that takes the target's place when it is complete. Removed
/// when abandoned; where the file system allows it, it has no name until then, so that not even a
/// killed process leaves a partial file behind.
class Replacement {
 public:
  explicit Replacement(const std::string& target)
      : target_(target), temporary_(target + ".XXXXXX") {
    const std::string folder = target.substr(0, target.find_last_of('/') + 1);
    fd_ = UniqueFd(retryInterrupted(
        [&] { return ::open((folder + ".").c_str(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600); }));
    if (fd_ || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return;
    fd_ = UniqueFd(::mkostemp(temporary_.data(), O_CLOEXEC));
    isNamed_ = bool{fd_};
  }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;
  ~Replacement() {
    if (isNamed_) ::unlink(temporary_.c_str());
  }

  int fd() const noexcept { return fd_.get(); }

  bool publish() {
    if (!isNamed_ && !giveName()) return false;
    if (::rename(temporary_.c_str(), target_.c_str()) != 0) return false;
    isNamed_ = false;
    return true;
  }

 private:
  bool giveName() {
    const std::string source = "/proc/self/fd/" + std::to_string(fd_.get());
    // mkostemp chooses a free name; linkat can't replace it, so the name is freed again first.
    for (int attempt = 0; attempt < 100; ++attempt) {
      temporary_ = target_ + ".XXXXXX";
      const UniqueFd placeholder(::mkostemp(temporary_.data(), O_CLOEXEC));
      if (!placeholder || ::unlink(temporary_.c_str()) != 0) return false;
      if (::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, temporary_.c_str(), AT_SYMLINK_FOLLOW) ==
          0) {
        isNamed_ = true;
        return true;
      }
      if (errno != EEXIST) return false;
    }
    return false;
  }

  std::string target_;
  std::string temporary_;
  UniqueFd fd_;
  bool isNamed_ = false;
};

bool copyBytes(int from, int to) {
  std::array<char, 65536> buffer{};
  while (true) {
    const ssize_t got =
        retryInterrupted([&] { return ::read(from, buffer.data(), buffer.size()); });
    if (got <= 0) return got == 0;
    for (ssize_t done = 0; done < got;) {
      const ssize_t written = retryInterrupted(
          [&] { return ::write(to, buffer.data() + done, static_cast<std::size_t>(got - done)); });
      if (written < 0) return false;
      done += written;
    }
  }
}

bool copyContent(int from, int to) {
  if (::ioctl(to, FICLONE, from) == 0) return true;
  constexpr std::size_t most = std::numeric_limits<ssize_t>::max() / 2;
  bool isFirst = true;
  while (true) {
    const ssize_t copied =
        retryInterrupted([&] { return ::copy_file_range(from, nullptr, to, nullptr, most, 0); });
    if (copied > 0) {
      isFirst = false;
      continue;
    }
    // Some file systems can't, or say that they copied nothing (procfs): only then by hand.
    if (copied == 0) return isFirst ? copyBytes(from, to) : true;
    const bool isUnsupported =
        errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP || errno == EINVAL;
    return isFirst && isUnsupported && copyBytes(from, to);
  }
}

bool copyAttributes(int to, const struct stat& status) {
  // Only a privileged process may give files away, and only it has files of others to clone.
  if (::fchown(to, status.st_uid, status.st_gid) != 0 && errno != EPERM) return false;
  if (::fchmod(to, status.st_mode & 07777U) != 0) return false;
  const std::array<timespec, 2> times{status.st_atim, status.st_mtim};
  return ::futimens(to, times.data()) == 0;
}

}  // namespace

int cloneFile(const std::string& source, const std::string& target) noexcept try {
  // Non-blocking, so that a FIFO at the path is an error and not a wait.
  const UniqueFd from(
      retryInterrupted([&] { return ::open(source.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }));
  struct stat status {};
  if (!from || ::fstat(from.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  Replacement replacement(target);
  if (replacement.fd() < 0) return errno;
  const bool isDone = copyContent(from.get(), replacement.fd()) &&
                      copyAttributes(replacement.fd(), status) && replacement.publish();
  return isDone ? 0 : errno;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

int setCreationTime(int descriptor, timespec /*time*/) noexcept {
  return ::fcntl(descriptor, F_GETFD) == -1 ? errno : 0;
}

}  // namespace velum
