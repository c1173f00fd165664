#pragma once

#include <chrono>
#include <cstdint>
#include <utility>

namespace velum {

/// The exclusive advisory lock of an open file (flock(2)), against other processes. It belongs to
/// the open file description: a child that inherits the descriptor shares it. Everybody who may
/// read the file can take it and keep it, so whoever waits for it needs a limit.
class FileLock {
 public:
  enum class State : std::uint8_t {
    held,
    unneeded,   ///< No such lock there, or no descriptor: the caller goes on without.
    elsewhere,  ///< Another open file description holds it.
  };

  /// Waits for the lock, at most `limit`; with 0 it tries once. A lock that is free costs one
  /// system call. One that is not is asked for again and again, because the system offers no wait
  /// that ends: its release is noticed after an eighth of the wait so far, at most 1 ms.
  ///
  /// To wait in steps, look at what `state` says after each: a lock that was not had costs nothing.
  static FileLock tryFor(int fd, std::chrono::nanoseconds limit) noexcept;

  FileLock(FileLock&& other) noexcept
      : fd_(other.fd_), state_(std::exchange(other.state_, State::unneeded)) {}
  FileLock& operator=(FileLock&&) = delete;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  /// The descriptor must still be open.
  ~FileLock();

  State state() const noexcept { return state_; }
  /// In a forked child, which shares the parent's lock: leaves it to the parent.
  void forget() noexcept { state_ = State::unneeded; }
  /// Whether nobody else is at the file; where it has no locks, as far as can be known.
  explicit operator bool() const noexcept { return state_ != State::elsewhere; }

 private:
  FileLock(int fd, State state) noexcept : fd_(fd), state_(state) {}

  int fd_;
  State state_;
};

}  // namespace velum
