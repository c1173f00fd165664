#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Velum/Base/AtFork.h"
#include "Velum/Concurrency/UnfairLock.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Files/InotifyReader.h"

namespace velum {

class FileWatcher;
class PathWatcher;
class PathWay;

/// The kernel's watches of this process, and who wants to hear of each: watches of the same file
/// share the kernel's, which carries the union of what they want. Under a lock of its owner's, but
/// for what it removes later by itself.
class InotifyWatches {
 public:
  // By the name each waits for, which is part of the watcher's path or way.
  using Names = std::unordered_multimap<std::string_view, std::shared_ptr<PathWatcher>>;
  using Ways = std::unordered_set<std::shared_ptr<PathWay>>;

  /// Who wants to hear of one file or folder.
  struct Watched {
    std::vector<std::shared_ptr<FileWatcher>> watchers;
    std::unique_ptr<Names> names;  // few folders are watched for those
    std::unique_ptr<Ways> ways;    // that lead through it

    bool isUnused() const {
      return watchers.empty() && (!names || names->empty()) && (!ways || ways->empty());
    }
  };

  /// All live for ever.
  InotifyWatches(UnfairLock& lock, InotifyReader& reader, std::shared_ptr<DispatchQueue> queue);

  /// Whether all of this is the parent's.
  bool isInherited() const noexcept { return generation_ != forkGeneration(); }
  /// Begins anew in a forked child.
  void clear() noexcept;

  /// The kernel's watch of what is at the path; -1 with errno.
  int add(const char* path, std::uint32_t mask);
  /// The same for one that is to tell nothing from before this call.
  int addOwn(const char* path, std::uint32_t mask);
  /// Whether that watch is what the path leads to. The kernel knows a file by its watch.
  bool isAt(int descriptor, const char* path);

  /// Who wants to hear of a watch: nobody yet, for a new one.
  Watched& operator[](int descriptor) { return watched_[descriptor]; }
  /// Null when it is none (any more).
  Watched* find(int descriptor);
  const std::unordered_map<int, Watched>& all() const noexcept { return watched_; }

  /// Gives a watch up when nobody wants it, at the latest after a moment: the kernel tells of each
  /// removal, which wakes the reader, so that they are removed together.
  void retireIfUnused(int descriptor);
  /// For one that the kernel dropped.
  void forget(int descriptor) { watched_.erase(descriptor); }

 private:
  void removeRetired();

  UnfairLock& lock_;
  InotifyReader& reader_;
  const std::shared_ptr<DispatchQueue> queue_;
  unsigned generation_ = forkGeneration();
  std::unordered_map<int, Watched> watched_;
  std::vector<int> retired_;
  bool isRemovalDue_ = false;
};

}  // namespace velum
