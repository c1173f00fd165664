#include "Velum/Platform/Linux/Files/PathWay.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "Velum/Platform/Linux/Files/PathNames.h"
#include "Velum/Platform/Linux/Files/PathWatcher.h"

namespace velum {
namespace {

constexpr std::uint32_t ownEvents = IN_DELETE_SELF | IN_MOVE_SELF;
// Of a folder for the sake of a name in it.
constexpr std::uint32_t nameEvents =
    ownEvents | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;
constexpr int mostLinks = 40;  // as for the kernel

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

}  // namespace

/// A watch that is there when the next look is taken: so nothing changes unnoticed in between.
int PathWay::pass(std::vector<int>& watches, const std::string& path, std::uint32_t mask) {
  const int descriptor = watches_.add(path.c_str(), mask);
  if (descriptor < 0) {
    isRefused_ = isRefused_ || errno == ENOSPC;
    return descriptor;
  }
  watches.push_back(descriptor);
  auto& ways = watches_[descriptor].ways;
  if (!ways) ways = std::make_unique<InotifyWatches::Ways>();
  ways->insert(shared_from_this());
  return descriptor;
}

std::optional<std::string> PathWay::passLink(const std::string& path) {
  auto target = linkTarget(path);
  for (int attempt = 0; target && attempt < mostPathAttempts; ++attempt) {
    pass(links_, path, ownEvents | IN_ATTRIB | IN_DONT_FOLLOW);
    auto again = linkTarget(path);
    if (again == target) return target;
    target = std::move(again);
  }
  return target;
}

/// As the kernel goes it; stops where there is no way on. A folder's attributes say who may go
/// through. Those of what is in it are told with its own: of the last folder, which may hold much
/// that changes, they are learned from the one above where that is watched.
void PathWay::walk(std::string_view path, Kind kind) {
  folder_ = path.starts_with('/') ? "/" : ".";
  int above = -1;  // the watch of that folder
  std::string rest(path);
  for (int links = 0; links <= mostLinks;) {
    std::string name = takeName(rest);
    isWhole_ = name.empty();
    if (isWhole_) return;
    const std::string at = pathIn(folder_, name);
    if (name == "..") {
      folder_ = at;
      above = -1;
      continue;
    }
    steps_.emplace_back(folder_, name);
    if (const auto target = passLink(at)) {
      if (target->starts_with('/')) {
        folder_ = "/";
        above = -1;
      }
      rest = rest.empty() ? *target : pathIn(*target, rest);
      ++links;
      continue;
    }
    if (kind == Kind::path && rest.empty()) {
      name_ = std::move(name);
      isWhole_ = true;
      return;
    }
    // One that may not be read can't be watched, but perhaps gone through.
    const bool isToldAbove = rest.empty() && above >= 0;
    if (isToldAbove) awaited_.emplace_back(above, name);
    const std::uint32_t events = ownEvents | (isToldAbove ? 0U : IN_ATTRIB);
    above = pass(folders_, at, events | IN_ONLYDIR | IN_DONT_FOLLOW);
    if (above < 0 && !isPassedUnwatched(at)) return;
    folder_ = at;
  }
}

/// Waits for names where the way ends; as long as it does not lead there, for each that is looked
/// up: a folder that somebody uses tells nothing of its own when it is removed.
void PathWay::await() {
  if (isWhole_) {
    descriptor_ = pass(folders_, folder_, nameEvents);
    isWhole_ = descriptor_ >= 0 || isPassedUnwatched(folder_);
    if (isWhole_) return;
  }
  std::vector<int> watches;
  for (const auto& [folder, name] : steps_) {
    const int descriptor = pass(watches, folder, nameEvents | IN_ATTRIB);
    if (descriptor >= 0) awaited_.emplace_back(descriptor, name);
  }
}

bool PathWay::go(std::string_view path, Kind kind) {
  walk(path, kind);
  await();
  // What was missing may have come between the two looks.
  return isWhole_ || steps_.empty() ||
         !isPassable(pathIn(steps_.back().first, steps_.back().second));
}

void PathWay::end() {
  const auto drop = [&](int descriptor) {
    const auto* const watched = watches_.find(descriptor);
    if (watched == nullptr || !watched->ways) return;
    if (watched->ways->erase(shared_from_this()) > 0) watches_.retireIfUnused(descriptor);
  };
  for (const int descriptor : folders_) drop(descriptor);
  for (const int descriptor : links_) drop(descriptor);
  for (const auto& [descriptor, name] : awaited_) drop(descriptor);
}

// Of a folder or link on the way itself, only attributes are told besides losses. A link that is
// replaced while somebody uses it shows no more than a changed number of names.
bool PathWay::isConcerned(const inotify_event& event, std::string_view entry) const {
  const auto isAwaited = [&](const auto& one) {
    return one.first == event.wd && one.second == entry;
  };
  if (entry.empty()) return (event.mask & IN_ATTRIB) != 0;
  return std::ranges::any_of(awaited_, isAwaited);
}

void PathWay::changed(FileDeliveries& deliveries) const {
  const std::vector<PathWatcher*> watchers(watchers_.begin(), watchers_.end());
  for (PathWatcher* const watcher : watchers) watcher->wayChanged(deliveries);
}

std::shared_ptr<PathWay> PathWays::to(std::string_view path, PathWay::Kind kind) {
  for (int attempt = 1;; ++attempt) {
    auto way = std::make_shared<PathWay>(watches_);
    ways_.insert(way);
    if (way->go(path, kind) || attempt == mostPathAttempts) return way;
    end(*way);
  }
}

// Should it have changed in between, that event is on its way, and will be taken for all of them.
std::shared_ptr<PathWay> PathWays::toFolder(std::string_view folder) {
  constexpr std::chrono::milliseconds shelfLife{1};
  const auto now = std::chrono::steady_clock::now();
  auto way = latest_.way.lock();
  if (way && folder == latest_.folder && now - latest_.moment < shelfLife) return way;
  way = to(folder, PathWay::Kind::folder);
  latest_ = {std::string(folder), way, now};
  return way;
}

void PathWays::end(PathWay& way) {
  way.end();
  ways_.erase(way.shared_from_this());
}

void PathWays::changed(const PathWay& way, FileDeliveries& deliveries) {
  latest_.way.reset();
  way.changed(deliveries);
}

void PathWays::allChanged(FileDeliveries& deliveries) {
  const std::vector<std::shared_ptr<PathWay>> ways(ways_.begin(), ways_.end());
  for (const auto& way : ways) changed(*way, deliveries);
}

void PathWays::clear() noexcept {
  ways_.clear();
  latest_.way.reset();
}

}  // namespace velum
