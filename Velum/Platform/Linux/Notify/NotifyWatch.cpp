#include "Velum/Platform/Linux/Notify/NotifyWatch.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Velum/Base/SystemError.h"

namespace velum {
namespace {

constexpr std::uint32_t folderIsGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
// A file that was removed while a poster had it open is none of ours any more: the poster notices
// and posts again.
constexpr std::uint32_t otherFile = IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// A removed folder itself tells so only when nobody has a file of it open any more; the folder
// above tells at once.
constexpr std::uint32_t rootEvents = otherFile | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t groupEvents =
    IN_MODIFY | otherFile | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK;

}  // namespace

void NotifyWatch::Events::read(const Inotify& inotify,
                               std::chrono::steady_clock::time_point deadline) noexcept {
  using Clock = std::chrono::steady_clock;
  size = 0;
  if (deadline > Clock::now()) {
    pollfd readable{.fd = inotify.fd.get(), .events = POLLIN, .revents = 0};
    retryInterrupted([&] {
      const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
      const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
      const timespec limit{.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
      return ::ppoll(&readable, 1, &limit, nullptr);
    });
  }
  const ssize_t got =
      retryInterrupted([&] { return ::read(inotify.fd.get(), bytes.data(), bytes.size()); });
  size = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
}

bool NotifyWatch::open() {
  if (inotify_ && inotify_->fd) return false;
  UniqueFd fresh(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!fresh) throw lastSystemError("addObserver(_:callback:), inotify_init1 ()");
  inotify_ = std::make_shared<Inotify>();
  inotify_->fd = std::move(fresh);
  taken_ = 0;
  return true;
}

void NotifyWatch::resetAfterFork() noexcept {
  if (inotify_) inotify_->fd.reset();
  root_ = -1;
  groups_ = {};
}

void NotifyWatch::leaveAll() noexcept {
  for (Group& group : groups_) group.observers = 0;
}

int NotifyWatch::add(const UniqueFd& folder, std::uint32_t events) const {
  // The folder that was checked, whatever stands at its path by now.
  const std::string target = "/proc/self/fd/" + std::to_string(folder.get());
  const int watch = ::inotify_add_watch(inotify_->fd.get(), target.c_str(), events);
  if (watch < 0) {
    throw lastSystemError("addObserver(_:callback:), inotify_add_watch (" + folder_.path() + ")");
  }
  return watch;
}

bool NotifyWatch::isComplete() const noexcept {
  return root_ >= 0 && std::none_of(groups_.begin(), groups_.end(), [](const Group& group) {
           return group.observers > 0 && group.watch < 0;
         });
}

// Tries again at once when the folder vanished between two steps.
void NotifyWatch::watch() {
  constexpr int maxTurns = 10;
  for (int turn = 1;; ++turn) {
    try {
      const int root = add(folder_.make(), rootEvents);
      if (root != root_) drop(root_);
      root_ = root;
      for (std::size_t group = 0; group < groups_.size(); ++group) {
        groups_.at(group).observers > 0 ? watchGroup(group) : drop(groups_.at(group));
      }
      // The groups are those of the folder that is watched.
      if (add(folder_.make(), rootEvents) == root_) return;
      if (turn == maxTurns) throw SystemError(EBUSY, "notify center, watch " + folder_.path());
    } catch (const SystemError& error) {
      unwatch();
      if (error.code() != ENOENT || turn == maxTurns) throw;
    }
  }
}

void NotifyWatch::watchGroup(std::size_t group) {
  Group& place = groups_.at(group);
  const int watch = add(folder_.makeGroup(group), groupEvents);
  if (watch == place.watch) return;
  drop(place);
  place.watch = watch;
}

// Also needed for folders that were moved: they keep their watch otherwise.
void NotifyWatch::drop(int& watch) noexcept {
  if (watch >= 0) ::inotify_rm_watch(inotify_->fd.get(), watch);
  watch = -1;
}

void NotifyWatch::drop(Group& group) noexcept {
  if (group.watch >= 0) group.earlier = group.watch;
  drop(group.watch);
}

void NotifyWatch::unwatch() noexcept {
  drop(root_);
  for (Group& group : groups_) drop(group);
}

// Bytes of events. Without those that a thread has read and not taken yet.
std::size_t NotifyWatch::unread() const {
  int size = 0;
  if (::ioctl(inotify_->fd.get(), FIONREAD, &size) != 0) throw lastSystemError("ioctl (FIONREAD)");
  return static_cast<std::size_t>(size);
}

// What was left unread makes the descriptor readable once more.
bool NotifyWatch::take(const Events& events, std::vector<Change>& changes) {
  bool isWhole = true;
  for (std::size_t offset = 0; offset < events.size;) {
    inotify_event event{};
    std::memcpy(&event, events.bytes.data() + offset, sizeof event);
    const char* const entry = events.bytes.data() + offset + sizeof event;
    offset += sizeof event + event.len;
    if ((event.mask & IN_Q_OVERFLOW) != 0) isWhole = false;
    note(event, event.len > 0 ? entry : "", taken_ + offset, changes);
  }
  taken_ += events.size;
  return isWhole;
}

// Of a group that was removed, and those that will be, posts may be unread. What is written into a
// folder that was moved away is posted once more.
void NotifyWatch::noteRoot(const inotify_event& event) noexcept {
  if ((event.mask & IN_DELETE) != 0) {
    drop(root_);
    return;
  }
  unwatch();
  for (Group& group : groups_) group.earlier = -1;
}

void NotifyWatch::note(const inotify_event& event, const char* entry, std::uint64_t place,
                       std::vector<Change>& changes) {
  if (event.wd < 0) return;
  if (event.wd == root_) {
    noteRoot(event);
    return;
  }
  auto* const group = std::find_if(groups_.begin(), groups_.end(), [&](const Group& one) {
    return one.watch == event.wd || one.earlier == event.wd;
  });
  if (group == groups_.end()) return;  // of an earlier folder
  if ((event.mask & folderIsGone) != 0) {
    if (event.wd == group->watch) drop(*group);
    return;
  }
  if (*entry == '\0') return;
  if (group->observers == 0) {  // nobody here is interested any more
    drop(*group);
    return;
  }
  const auto number = static_cast<std::size_t>(group - groups_.begin());
  std::string file{static_cast<char>('0' + number), '/'};
  file += entry;
  if ((event.mask & otherFile) != 0) folder_.forget(file);
  const bool isPost = (event.mask & IN_MODIFY) != 0;
  const auto known = std::find_if(changes.begin(), changes.end(), [&](const Change& change) {
    return change.file == file && change.isPost == isPost;
  });
  if (known == changes.end()) {
    changes.push_back({folder_.nameOf(number, entry), std::move(file), place, isPost});
  } else {
    known->place = place;
  }
}

}  // namespace velum
