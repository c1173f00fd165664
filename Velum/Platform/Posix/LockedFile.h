#pragma once

#include <sys/file.h>

#include <chrono>
#include <optional>

#include "Velum/Platform/AtFork.h"
#include "Velum/Platform/Posix/FileLock.h"
#include "Velum/Platform/Posix/UniqueFd.h"

namespace velum {

/// A file that is open to hold its exclusive advisory lock, against threads and other processes.
/// Where the file system has no such locks it holds nothing, and the owner goes on.
///
/// The lock belongs to the open file: a forked child that kept the descriptor would go on holding
/// it after its parent was killed. So the child's is closed, also where the parent was only waiting
/// for the lock.
class LockedFile final : public ForkParticipant {
 public:
  /// `open` returns a descriptor of the file, opened anew each time, or throws. It may be called
  /// again. What has no descriptor holds no lock. Waits for the lock without end.
  template <class Open>
  explicit LockedFile(const Open& open) : ForkParticipant(Stage::leaf) {
    openKnownToFork(open);
    if (file_) retryInterrupted([this] { return ::flock(file_.get(), LOCK_EX); });
  }
  /// The same, but waits at most `limit`; see `isElsewhere`.
  template <class Open>
  LockedFile(const Open& open, std::chrono::nanoseconds limit) : ForkParticipant(Stage::leaf) {
    openKnownToFork(open);
    lock_.emplace(FileLock::tryFor(file_.get(), limit));
  }
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;
  ~LockedFile() override {
    lock_.reset();
    if (file_) ::flock(file_.get(), LOCK_UN);
    unregisterForFork();
  }

  /// The descriptor, -1 without one.
  int get() const noexcept { return file_.get(); }
  /// Whether the wait ended without the lock, because somebody else kept it.
  bool isElsewhere() const noexcept { return lock_ && !*lock_; }

  void prepareFork() noexcept override {}
  void afterForkInParent() noexcept override {}
  void afterForkInChild() noexcept override {
    if (lock_) lock_->forget();
    file_.reset();
  }

 private:
  template <class Open>
  void openKnownToFork(const Open& open) {
    for (unsigned forks = 0;;) {
      forks = forksBegun();
      file_ = open();
      registerForFork();
      if (forks == forksBegun()) break;
      unregisterForFork();  // a child may have it that does not know of it
    }
  }

  UniqueFd file_;
  std::optional<FileLock> lock_;
};

}  // namespace velum
