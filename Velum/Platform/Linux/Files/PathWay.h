#pragma once

#include <sys/inotify.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Velum/Platform/Linux/Files/FileWatcher.h"
#include "Velum/Platform/Linux/Files/InotifyWatches.h"

namespace velum {

/// To go a way, against somebody who makes and removes folders on it.
constexpr int mostPathAttempts = 100;

/// How the kernel gets to the folder that holds the last name of a path: through folders and links,
/// all of which are watched for their own move and end, and for who may go through. As long as it
/// does not get there, each folder on the way is watched for the name that is looked up in it. One
/// for all watchers that began together in one folder. Under the registry's lock.
class PathWay : public std::enable_shared_from_this<PathWay> {
 public:
  enum class Kind : bool {
    folder,  ///< All of the path are folders, or links to such.
    path,    ///< But for the last name, which is followed while it is a link.
  };

  explicit PathWay(InotifyWatches& watches) : watches_(watches) {}
  PathWay(const PathWay&) = delete;
  PathWay& operator=(const PathWay&) = delete;
  ~PathWay() = default;

  /// Goes there, once. False when what was missing has come meanwhile: end it and go anew.
  bool go(std::string_view path, Kind kind);
  /// Gives up its watches.
  void end();

  /// Where it ends, free of links.
  const std::string& folder() const noexcept { return folder_; }
  /// Kind::path: of what stands there.
  const std::string& name() const noexcept { return name_; }
  bool isWhole() const noexcept { return isWhole_; }
  /// The watch of that folder for the names in it.
  int descriptor() const noexcept { return descriptor_; }
  /// The user may not have as many watches.
  bool isRefused() const noexcept { return isRefused_; }

  void enter(PathWatcher& watcher) { watchers_.insert(&watcher); }
  /// True when it was the last one.
  bool leave(PathWatcher& watcher) { return watchers_.erase(&watcher) > 0 && watchers_.empty(); }

  /// Whether an event of the watch of one of its folders or links, other than that one's own end
  /// and move, may have it lead elsewhere.
  bool isConcerned(const inotify_event& event, std::string_view entry) const;
  /// It may lead elsewhere: has all its watchers look.
  void changed(FileDeliveries& deliveries) const;

 private:
  void walk(std::string_view path, Kind kind);
  int pass(std::vector<int>& watches, const std::string& path, std::uint32_t mask);
  std::optional<std::string> passLink(const std::string& path);
  void await();

  InotifyWatches& watches_;
  std::string folder_;
  std::string name_;
  bool isWhole_ = false;
  int descriptor_ = -1;
  bool isRefused_ = false;
  std::vector<int> folders_;
  std::vector<int> links_;
  std::vector<std::pair<std::string, std::string>> steps_;  // folders, and what is looked up there
  std::vector<std::pair<int, std::string>> awaited_;        // watches, and the name of interest
  std::unordered_set<PathWatcher*> watchers_;
};

/// All ways of the process. Under the registry's lock.
class PathWays {
 public:
  explicit PathWays(InotifyWatches& watches) : watches_(watches) {}

  InotifyWatches& watches() noexcept { return watches_; }

  std::shared_ptr<PathWay> to(std::string_view path, PathWay::Kind kind);
  /// Many paths of one folder are watched one after the other: the way there is not gone each time.
  std::shared_ptr<PathWay> toFolder(std::string_view folder);
  /// Nobody takes that way any more.
  void end(PathWay& way);

  /// What any event tells of a way is told to its watchers.
  void changed(const PathWay& way, FileDeliveries& deliveries);
  /// The same for all, whatever happened.
  void allChanged(FileDeliveries& deliveries);
  /// Begins anew in a forked child.
  void clear() noexcept;

 private:
  InotifyWatches& watches_;
  InotifyWatches::Ways ways_;
  struct {
    std::string folder;
    std::weak_ptr<PathWay> way;
    std::chrono::steady_clock::time_point moment;
  } latest_;
};

}  // namespace velum
