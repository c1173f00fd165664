#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace velum {

/// Owns a file descriptor and closes it. -1 means none.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  int release() noexcept { return std::exchange(fd_, -1); }
  /// Keeps errno, so that an error path may clean up before it reports.
  void reset(int fd = -1) noexcept {
    const int error = errno;
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
    errno = error;
  }

 private:
  int fd_ = -1;
};

/// Repeats a system call that a signal interrupted: `retryInterrupted([&] { return ::read(...);
/// })`.
template <class Call>
auto retryInterrupted(Call call) noexcept -> decltype(call()) {
  decltype(call()) result{};
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace velum
