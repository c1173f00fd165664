#include "Velum/Platform/Linux/Files/PathWatcher.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "Velum/Platform/Linux/Files/PathNames.h"

namespace velum {
namespace {

// Of what stands at the path itself.
constexpr std::uint32_t anyEvent =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;

}  // namespace

PathWatcher::PathWatcher(PathWays& ways, std::string path, std::shared_ptr<DispatchQueue> queue,
                         FileEvents::Handler handler)
    : FileWatcher(std::move(queue), std::move(handler)),
      ways_(ways),
      path_(std::move(path)),
      size_(path_.find_last_not_of('/') + 1) {
  if (size_ == 0) size_ = std::min<std::size_t>(path_.size(), 1);  // the root
}

std::shared_ptr<PathWatcher> PathWatcher::self() {
  return std::static_pointer_cast<PathWatcher>(shared_from_this());
}

FileEvent PathWatcher::translated(std::uint32_t mask) {
  return plainlyTranslated(mask);
}

FileEvent PathWatcher::wanted() const noexcept {
  return FileEvent::deleted | FileEvent::written | FileEvent::attribute | FileEvent::renamed |
         FileEvent::created;
}

// The way first: what changes on it from now on is told, also while the next call goes it. What
// changes in the content of a folder's files is nothing to the folder.
bool PathWatcher::watch() {
  const std::string path(this->path());
  const bool hasName = takeFolderWay();
  const auto add = [&](std::uint32_t mask) {
    errno = ENOSPC;
    descriptor = way_->isRefused() ? -1 : ways_.watches().addOwn(path.c_str(), anyEvent | mask);
    return descriptor >= 0;
  };
  if (add(IN_ONLYDIR | (hasName ? IN_DONT_FOLLOW : 0))) return true;
  if (errno != ENOTDIR) return false;
  takeWay();
  return add(IN_ONLYDIR) || (errno == ENOTDIR && add(IN_MODIFY));
}

void PathWatcher::enter(const std::shared_ptr<PathWay>& way) {
  if (way_ == way) return;  // which ends with the last one that leaves it
  leave();
  way_ = way;
  name_ = way->name().empty() ? lastName(path()) : way->name();
  way->enter(*this);
  if (way->descriptor() < 0 || name_.empty()) return;
  auto& names = ways_.watches()[way->descriptor()].names;
  if (!names) names = std::make_unique<InotifyWatches::Names>();
  names->emplace(name_, self());
}

void PathWatcher::leave() {
  const auto way = std::exchange(way_, nullptr);
  if (!way) return;
  const auto* const watched = ways_.watches().find(way->descriptor());
  if (watched != nullptr && watched->names) {
    auto& names = *watched->names;
    const auto [begin, end] = names.equal_range(name_);
    const auto place =
        std::find_if(begin, end, [&](const auto& name) { return name.second.get() == this; });
    if (place != end) names.erase(place);
  }
  if (way->leave(*this)) ways_.end(*way);
}

// Where the last name may be a link's, which is not followed. False where there is none.
bool PathWatcher::takeFolderWay() {
  const bool hasName = !lastName(path()).empty();
  enter(hasName ? ways_.toFolder(folderAbove(path())) : ways_.to(path(), PathWay::Kind::folder));
  return hasName;
}

void PathWatcher::takeWay() {
  if (!takeFolderWay()) return;
  for (int attempt = 0; attempt < mostPathAttempts; ++attempt) {
    if (!way_->isWhole() || !linkTarget(pathIn(way_->folder(), name_))) return;
    enter(ways_.to(path(), PathWay::Kind::path));
  }
}

PathWatcher::Identity PathWatcher::identity() const {
  struct stat status {};
  if (::stat(std::string(path()).c_str(), &status) != 0) return std::nullopt;
  return std::pair(status.st_dev, status.st_ino);
}

bool PathWatcher::isStillThere() {
  return ways_.watches().isAt(descriptor, std::string(path()).c_str());
}

// Unless it is the same file still: the event may be older than the watch.
void PathWatcher::nameChanged(std::uint32_t mask, FileDeliveries& deliveries) {
  const bool hasCome = (mask & (IN_CREATE | IN_MOVED_TO)) != 0;
  if (hasCome) takeWay();  // a link, perhaps
  seen_ = identity();
  if (!isOutdated() && isStillThere()) return;
  setOutdated();
  const FileEvent loss = (mask & IN_DELETE) != 0 ? FileEvent::deleted : FileEvent::renamed;
  deliveries.add(*this, hasCome ? FileEvent::created : loss);
}

void PathWatcher::wayChanged(FileDeliveries& deliveries) {
  takeWay();
  const auto seen = std::exchange(seen_, identity());
  if (isOutdated() ? seen_ == seen : isStillThere()) return;
  setOutdated();
  deliveries.add(*this, seen_ ? FileEvent::created : FileEvent::renamed);
}

}  // namespace velum
