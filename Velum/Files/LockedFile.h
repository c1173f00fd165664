#pragma once

#include <chrono>
#include <optional>

#include "Velum/Base/AtFork.h"
#include "Velum/Files/FileLock.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {

/// A file that is open to hold its exclusive advisory lock, against threads and other processes.
/// Where the file system has no such locks it holds nothing, and the owner goes on.
///
/// The lock belongs to the open file: a forked child that kept the descriptor would go on holding
/// it after its parent was killed. So the child's is closed, also where the parent was only waiting
/// for the lock.
class LockedFile final : public ForkParticipant {
 public:
  /// Waits for the lock at most `limit`; see operator bool. `open` returns a descriptor of the
  /// file, opened anew each time, or throws. It may be called again. What has no descriptor holds
  /// no lock.
  template <class Open>
  LockedFile(const Open& open, std::chrono::nanoseconds limit) : ForkParticipant(Stage::leaf) {
    for (unsigned forks = 0;;) {
      forks = forksBegun();
      file_ = open();
      registerForFork();
      if (forks == forksBegun()) break;
      unregisterForFork();  // a child may have it that does not know of it
    }
    lock_.emplace(FileLock::tryFor(file_.get(), limit));
  }
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;
  ~LockedFile() override {
    lock_.reset();
    unregisterForFork();
  }

  /// The descriptor, -1 without one.
  int get() const noexcept { return file_.get(); }
  /// False when somebody else kept the lock until the limit.
  explicit operator bool() const noexcept { return static_cast<bool>(*lock_); }

  void prepareFork() noexcept override {}
  void afterForkInParent() noexcept override {}
  void afterForkInChild() noexcept override {
    if (lock_) lock_->forget();  // not while it is only waited for
    file_.reset();
  }

 private:
  UniqueFd file_;
  std::optional<FileLock> lock_;
};

}  // namespace velum
