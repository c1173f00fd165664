#pragma once

#include <sys/inotify.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Velum/Files/UniqueFd.h"
#include "Velum/Platform/Linux/Notify/NotifyFolder.h"

namespace velum {

/// Watches a notify folder: one inotify descriptor with a watch for the folder and for each group
/// in which somebody observes a name. Under its owner's lock, but for `Events`.
class NotifyWatch {
 public:
  /// The descriptor, which outlives a watch while a thread is reading.
  struct Inotify {
    UniqueFd fd;
  };
  /// What one read(2) takes.
  struct Events {  // NOLINT(*-member-init): filled by read
    alignas(inotify_event) std::array<char, 16384> bytes;
    std::size_t size = 0;

    /// Waits until there are events, no longer than `deadline`.
    void read(const Inotify& inotify, std::chrono::steady_clock::time_point deadline) noexcept;
  };
  /// A file that was written or replaced.
  struct Change {
    std::string name;  ///< As NotifyFolder::fileName gave it.
    std::string file;
    std::uint64_t place;  ///< In the stream of events.
    bool isPost;
  };

  explicit NotifyWatch(const NotifyFolder& folder) : folder_(folder) {}

  /// True when it was not open. Throws SystemError.
  bool open();
  const std::shared_ptr<Inotify>& inotify() const noexcept { return inotify_; }
  /// For a forked child. The parent reads this descriptor's events; a child that read along would
  /// steal them.
  void resetAfterFork() noexcept;

  /// An observer of a name in that group comes, or goes. A group without any is watched for some
  /// time yet.
  void enter(std::size_t group) noexcept { ++groups_.at(group).observers; }
  void leave(std::size_t group) noexcept { --groups_.at(group).observers; }
  void leaveAll() noexcept;

  /// Whether the folder and all groups with observers are watched.
  bool isComplete() const noexcept;
  /// Watches the folder and the groups with observers. What still stands where it stood keeps its
  /// watch and the events that are unread. Throws SystemError; nothing is watched then.
  void watch();
  /// The same for one more group.
  void watchGroup(std::size_t group);
  void unwatch() noexcept;
  /// Tells one watch of the group from others; -1 for none.
  int watchOf(std::size_t group) const noexcept { return groups_.at(group).watch; }

  /// How long the stream of events is that was taken, and how much of it waits to be read.
  std::uint64_t taken() const noexcept { return taken_; }
  std::size_t unread() const;

  /// Follows what the events say of the watches and appends what they say of files; of posts that
  /// follow each other, the last one's. False when the kernel lost events.
  bool take(const Events& events, std::vector<Change>& changes);

 private:
  /// A group is watched when somebody observes a name in it, and perhaps some time after.
  struct Group {
    int watch = -1;
    int earlier = -1;  // given up; its last events may be unread
    int observers = 0;
  };

  int add(const UniqueFd& folder, std::uint32_t events) const;
  void drop(int& watch) noexcept;
  void drop(Group& group) noexcept;
  void note(const inotify_event& event, const char* entry, std::uint64_t place,
            std::vector<Change>& changes);
  void noteRoot(const inotify_event& event) noexcept;

  const NotifyFolder& folder_;
  std::shared_ptr<Inotify> inotify_;
  std::uint64_t taken_ = 0;  // bytes
  int root_ = -1;            // the watch of the folder itself; -1 while there is none
  std::array<Group, NotifyFolder::groups> groups_;
};

}  // namespace velum
