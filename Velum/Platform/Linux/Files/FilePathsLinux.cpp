// What FileEventsLinux does to know where a path leads.

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>

#include "Velum/Platform/Linux/Files/FileEventsLinux.h"

namespace velum {
namespace {

constexpr std::uint32_t ownEvents = IN_DELETE_SELF | IN_MOVE_SELF;
// Of a folder for the sake of a name in it.
constexpr std::uint32_t nameEvents =
    ownEvents | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;
constexpr int mostAttempts = 100;  // against somebody who makes and removes folders on the way
constexpr int mostLinks = 40;      // as for the kernel

std::optional<std::pair<dev_t, ino_t>> identity(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return std::pair(status.st_dev, status.st_ino);
}

// A folder that this process may go through.
bool isPassable(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

// After a watch was refused: whether that is no reason to stop here.
bool isPassedUnwatched(const std::string& path) {
  return errno == ENOSPC || (errno == EACCES && isPassable(path));
}

std::shared_ptr<PathWatcher> sharing(PathWatcher* watcher) {
  return std::static_pointer_cast<PathWatcher>(watcher->shared_from_this());
}

}  // namespace

/// A watch that is there when the next look is taken: so nothing changes unnoticed in between.
int FileEventsLinux::passLk(PathWay& way, std::vector<int>& watches, const std::string& path,
                            std::uint32_t mask) {
  const int descriptor = addWatchLk(path.c_str(), mask);
  if (descriptor < 0) {
    way.isRefused = way.isRefused || errno == ENOSPC;
    return descriptor;
  }
  watches.push_back(descriptor);
  auto& ways = watched_[descriptor].ways;
  if (!ways) ways = std::make_unique<Ways>();
  ways->insert(way.shared_from_this());
  return descriptor;
}

std::optional<std::string> FileEventsLinux::passLinkLk(PathWay& way, const std::string& path) {
  auto target = linkTarget(path);
  for (int attempt = 0; target && attempt < mostAttempts; ++attempt) {
    passLk(way, way.links, path, ownEvents | IN_ATTRIB | IN_DONT_FOLLOW);
    auto again = linkTarget(path);
    if (again == target) return target;
    target = std::move(again);
  }
  return target;
}

/// As the kernel goes it; stops where there is no way on. A folder's attributes say who may go
/// through. Those of what is in it are told with its own: of the last folder, which may hold much
/// that changes, they are learned from the one above where that is watched.
void FileEventsLinux::goLk(PathWay& way, std::string_view path, PathWay::Kind kind) {
  way.folder = path.starts_with('/') ? "/" : ".";
  int above = -1;  // the watch of that folder
  std::string rest(path);
  for (int links = 0; links <= mostLinks;) {
    std::string name = takeName(rest);
    way.isWhole = name.empty();
    if (way.isWhole) return;
    const std::string at = pathIn(way.folder, name);
    if (name == "..") {
      way.folder = at;
      above = -1;
      continue;
    }
    way.steps.emplace_back(way.folder, name);
    if (const auto target = passLinkLk(way, at)) {
      if (target->starts_with('/')) {
        way.folder = "/";
        above = -1;
      }
      rest = rest.empty() ? *target : pathIn(*target, rest);
      ++links;
      continue;
    }
    if (kind == PathWay::Kind::path && rest.empty()) {
      way.name = std::move(name);
      way.isWhole = true;
      return;
    }
    // One that may not be read can't be watched, but perhaps gone through.
    const bool isToldAbove = rest.empty() && above >= 0;
    if (isToldAbove) way.awaited.emplace_back(above, name);
    const std::uint32_t events = ownEvents | (isToldAbove ? 0U : IN_ATTRIB);
    above = passLk(way, way.folders, at, events | IN_ONLYDIR | IN_DONT_FOLLOW);
    if (above < 0 && !isPassedUnwatched(at)) return;
    way.folder = at;
  }
}

/// Waits for names where the way ends; as long as it does not lead there, for each that is looked
/// up: a folder that somebody uses tells nothing of its own when it is removed.
void FileEventsLinux::awaitLk(PathWay& way) {
  if (way.isWhole) {
    way.descriptor = passLk(way, way.folders, way.folder, nameEvents);
    way.isWhole = way.descriptor >= 0 || isPassedUnwatched(way.folder);
    if (way.isWhole) return;
  }
  std::vector<int> watches;
  for (const auto& [folder, name] : way.steps) {
    const int descriptor = passLk(way, watches, folder, nameEvents | IN_ATTRIB);
    if (descriptor >= 0) way.awaited.emplace_back(descriptor, name);
  }
}

std::shared_ptr<PathWay> FileEventsLinux::wayLk(std::string_view path, PathWay::Kind kind) {
  for (int attempt = 1;; ++attempt) {
    auto way = std::make_shared<PathWay>();
    ways_.insert(way);
    goLk(*way, path, kind);
    awaitLk(*way);
    // What was missing may have come between the two looks.
    if (way->isWhole || attempt == mostAttempts || way->steps.empty()) return way;
    const auto& [folder, name] = way->steps.back();
    if (!isPassable(pathIn(folder, name))) return way;
    dropLk(*way);
  }
}

// Many paths of one folder are watched one after the other: the way there is not gone each time.
// Should it have changed in between, that event is on its way, and will be taken for all of them.
std::shared_ptr<PathWay> FileEventsLinux::folderWayLk(std::string_view folder) {
  constexpr std::chrono::milliseconds shelfLife{1};
  const auto now = std::chrono::steady_clock::now();
  auto way = latest_.way.lock();
  if (way && folder == latest_.folder && now - latest_.moment < shelfLife) return way;
  way = wayLk(folder, PathWay::Kind::folder);
  latest_ = {std::string(folder), way, now};
  return way;
}

void FileEventsLinux::enterLk(const std::shared_ptr<PathWatcher>& watcher,
                              const std::shared_ptr<PathWay>& way) {
  if (watcher->way == way) return;  // which ends with the last one that leaves it
  leaveWayLk(watcher);
  watcher->way = way;
  watcher->name = way->name.empty() ? lastName(watcher->path()) : way->name;
  way->watchers.insert(watcher.get());
  if (way->descriptor < 0 || watcher->name.empty()) return;
  auto& names = watched_[way->descriptor].names;
  if (!names) names = std::make_unique<Names>();
  names->emplace(watcher->name, watcher);
}

bool FileEventsLinux::takeFolderWayLk(const std::shared_ptr<PathWatcher>& watcher) {
  const bool hasName = !lastName(watcher->path()).empty();
  enterLk(watcher, hasName ? folderWayLk(folderAbove(watcher->path()))
                           : wayLk(watcher->path(), PathWay::Kind::folder));
  return hasName;
}

void FileEventsLinux::takeWayLk(const std::shared_ptr<PathWatcher>& watcher) {
  if (!takeFolderWayLk(watcher)) return;
  for (int attempt = 0; attempt < mostAttempts; ++attempt) {
    const PathWay& way = *watcher->way;
    if (!way.isWhole || !linkTarget(pathIn(way.folder, watcher->name))) return;
    enterLk(watcher, wayLk(watcher->path(), PathWay::Kind::path));
  }
}

void FileEventsLinux::leaveWayLk(const std::shared_ptr<PathWatcher>& watcher) {
  const auto way = std::exchange(watcher->way, nullptr);
  if (!way) return;
  const auto entry = watched_.find(way->descriptor);
  if (entry != watched_.end() && entry->second.names) {
    auto& names = *entry->second.names;
    const auto [begin, end] = names.equal_range(watcher->name);
    const auto place =
        std::find_if(begin, end, [&](const auto& name) { return name.second == watcher; });
    if (place != end) names.erase(place);
  }
  way->watchers.erase(watcher.get());
  if (way->watchers.empty()) dropLk(*way);
}

void FileEventsLinux::dropLk(PathWay& way) {
  const auto self = way.shared_from_this();
  const auto drop = [&](int descriptor) {
    const auto entry = watched_.find(descriptor);
    if (entry == watched_.end() || !entry->second.ways) return;
    if (entry->second.ways->erase(self) > 0) retireIfUnusedLk(descriptor);
  };
  for (const int descriptor : way.folders) drop(descriptor);
  for (const int descriptor : way.links) drop(descriptor);
  for (const auto& [descriptor, name] : way.awaited) drop(descriptor);
  ways_.erase(self);
}

// The kernel knows a file by its watch: the same answer for the path means the same file.
bool FileEventsLinux::isStillThereLk(const PathWatcher& watcher) {
  const int now = addWatchLk(std::string(watcher.path()).c_str(), IN_DELETE_SELF);
  if (now >= 0 && !watched_.contains(now)) ::inotify_rm_watch(reader_.descriptor(), now);
  return now >= 0 && now == watcher.descriptor;
}

bool FileEventsLinux::isOutdated(PathWatcher& watcher) {
  const std::lock_guard guard(lock_);
  if (watcher.isOutdated() || generation_ != forkGeneration()) return true;
  if (isStillThereLk(watcher)) return false;
  watcher.setOutdated();
  return true;
}

// Unless it is the same file still: the event may be older than the watch.
void FileEventsLinux::nameChangedLk(const std::shared_ptr<PathWatcher>& watcher, std::uint32_t mask,
                                    Outcome& outcome) {
  const bool hasCome = (mask & (IN_CREATE | IN_MOVED_TO)) != 0;
  if (hasCome) takeWayLk(watcher);  // a link, perhaps
  watcher->seen = identity(std::string(watcher->path()));
  if (!watcher->isOutdated() && isStillThereLk(*watcher)) return;
  watcher->setOutdated();
  const FileEvent loss = (mask & IN_DELETE) != 0 ? FileEvent::deleted : FileEvent::renamed;
  deliver(*watcher, hasCome ? FileEvent::created : loss, outcome);
}

void FileEventsLinux::lookAgainLk(const std::shared_ptr<PathWatcher>& watcher, Outcome& outcome) {
  takeWayLk(watcher);
  const auto seen = std::exchange(watcher->seen, identity(std::string(watcher->path())));
  if (watcher->isOutdated() ? watcher->seen == seen : isStillThereLk(*watcher)) return;
  watcher->setOutdated();
  deliver(*watcher, watcher->seen ? FileEvent::created : FileEvent::renamed, outcome);
}

void FileEventsLinux::wayChangedLk(PathWay& way, Outcome& outcome) {
  latest_.way.reset();
  const std::vector<PathWatcher*> watchers(way.watchers.begin(), way.watchers.end());
  for (PathWatcher* const watcher : watchers) lookAgainLk(sharing(watcher), outcome);
}

void FileEventsLinux::lookAgainAtAllLk(Outcome& outcome) {
  const std::vector<std::shared_ptr<PathWay>> ways(ways_.begin(), ways_.end());
  for (const auto& way : ways) wayChangedLk(*way, outcome);
}

}  // namespace velum
