#include "Velum/Platform/Linux/NotifyCenterLinux.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>

#include "Velum/Deadline.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Directories.h"
#include "Velum/Platform/Thread.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

constexpr const char* systemFolder = "/run/velum-notify";
constexpr std::chrono::seconds retryPause{1};
constexpr std::chrono::minutes sweepPause{1};

constexpr std::uint32_t folderIsGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
// A file that was removed while a poster had it open is none of ours any more: the poster notices
// and posts again.
constexpr std::uint32_t otherFile = IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// A removed folder itself tells so only when nobody has a file of it open any more; the folder
// above tells at once.
constexpr std::uint32_t rootEvents = otherFile | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t groupEvents =
    IN_MODIFY | otherFile | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK;

std::shared_ptr<NotifyCenterLinux> userCenter() {
  const auto runtime = Directories::shared().runtime();
  return NotifyCenterLinux::make(runtime ? *runtime + "/notify" : "", NotifyFolder::Sharing::user);
}

}  // namespace

/// One observer. Shared by the center, the handle and deliveries on their way.
struct NotifyCenterLinux::Registration {
  Registration(std::string fileName, Kind itsKind, Handler itsHandler)
      : file(std::move(fileName)), kind(itsKind), handler(std::move(itsHandler)) {}

  void call(bool mayTakeLong) const {
    if (!isRemoved.load(std::memory_order_acquire)) handler(mayTakeLong);
  }

  const std::string file;
  const Kind kind;
  const Handler handler;
  NotifyGeneration seen;
  std::uint64_t since = 0;  // the place in the stream of events; earlier ones tell of older posts
  std::atomic<bool> isRemoved{false};
};

class NotifyCenterLinux::Handle final : public Observer {
 public:
  Handle(std::weak_ptr<NotifyCenterLinux> center, std::shared_ptr<Registration> registration)
      : center_(std::move(center)), registration_(std::move(registration)) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() override {
    registration_->isRemoved.store(true, std::memory_order_release);
    if (const auto center = center_.lock()) center->remove(registration_);
  }

 private:
  std::weak_ptr<NotifyCenterLinux> center_;
  std::shared_ptr<Registration> registration_;
};

NotifyCenter& NotifyCenter::shared(Scope scope) {
  if (scope == Scope::user) {
    static const auto& user = *new auto(userCenter());  // NOLINT: never destroyed
    return *user;
  }
  static const auto& system =  // NOLINTNEXTLINE: never destroyed
      *new auto(NotifyCenterLinux::make(systemFolder, NotifyFolder::Sharing::all));
  return *system;
}

std::shared_ptr<NotifyCenterLinux> NotifyCenterLinux::make(std::string folder,
                                                           NotifyFolder::Sharing sharing) {
  return std::shared_ptr<NotifyCenterLinux>(new NotifyCenterLinux(std::move(folder), sharing));
}

NotifyCenterLinux::NotifyCenterLinux(std::string folder, NotifyFolder::Sharing sharing)
    : ForkParticipant(Stage::service), folder_(std::move(folder), sharing) {
  registerForFork();
}

NotifyCenterLinux::~NotifyCenterLinux() {
  unregisterForFork();
  // Wakes the center's thread, which may be reading, and then finds no center.
  if (generation_ == forkGeneration()) unwatchLk();
}

void NotifyCenterLinux::afterForkInChild() noexcept {
  // The parent reads this descriptor's events; a child that read along would steal them.
  if (inotify_) inotify_->fd.reset();
  root_ = -1;
  groups_ = {};
  last_.watch = -1;
  isStale_ = false;
  isRetrying_ = false;
  nextTry_ = {};
  hasServer_ = false;
  isServerLent_ = false;
  lock_.resetAfterFork();
}

void NotifyCenterLinux::post(std::string_view name) {
  if (folder_.post(name)) sweepNowAndThen();
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addObserver(std::string_view name,
                                                                       Callback callback) {
  return add(name, Kind::observer, [callback = std::move(callback)](bool) { callback(); });
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addHandler(std::string_view name,
                                                                      Handler handler) {
  return add(name, Kind::handler, std::move(handler));
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addAwaited(std::string_view name,
                                                                      Callback callback) {
  return add(name, Kind::awaited, [callback = std::move(callback)](bool) { callback(); });
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::add(std::string_view name, Kind kind,
                                                               Handler handler) {
  auto registration =
      std::make_shared<Registration>(NotifyFolder::fileName(name), kind, std::move(handler));
  Observers inherited;  // dropped after the lock
  const std::lock_guard guard(lock_);
  openLk(inherited);
  const std::size_t group = NotifyFolder::groupOf(registration->file);
  if (!isWatchingLk()) {
    watchLk();
    // Others may have been posted meanwhile. Whoever reads is about to look for the folder.
    isStale_ = !observers_.empty();
  }
  if (groups_.at(group).watch < 0) watchGroupLk(group);
  // A thread that runs a handler may take long to come back.
  const bool isServed = hasServer_ && !(isServerLent_ && kind == Kind::observer);
  if (kind != Kind::awaited && !isServed) startServerLk();
  // After the watch: what is posted from here on gives an event.
  const std::size_t unread = unreadLk();
  registration->since = taken_ + unread;
  registration->seen = presentLk(registration->file, unread);
  observers_[registration->file].push_back(registration);
  ++groups_.at(group).observers;
  if (kind == Kind::observer) ++plainObservers_;
  return std::make_unique<Handle>(weak_from_this(), std::move(registration));
}

void NotifyCenterLinux::remove(const std::shared_ptr<Registration>& registration) {
  const std::lock_guard guard(lock_);
  if (generation_ != forkGeneration()) return;  // counted in the parent only
  const auto entry = observers_.find(registration->file);
  if (entry == observers_.end() || std::erase(entry->second, registration) == 0) return;
  --groups_.at(NotifyFolder::groupOf(registration->file)).observers;
  if (registration->kind == Kind::observer) --plainObservers_;
  if (!entry->second.empty()) return;
  const int watch = groups_.at(NotifyFolder::groupOf(registration->file)).watch;
  last_ = {registration->file, registration->seen, watch};
  observers_.erase(entry);
}

// The generation of a file whose group is watched. To look is most of what adding an observer
// takes. What was last known holds when all events are taken: none is unread, and, asked after
// that, no thread is about to take any.
NotifyGeneration NotifyCenterLinux::presentLk(const std::string& file, std::size_t unread) {
  const bool isKnown = unread == 0 && !isStale_ && last_.watch >= 0 && last_.file == file &&
                       last_.watch == groups_.at(NotifyFolder::groupOf(file)).watch &&
                       !reader_.isTaken();
  return isKnown ? last_.generation : folder_.look(file).generation;
}

// Bytes of events. Without those that a thread has read and not taken yet.
std::size_t NotifyCenterLinux::unreadLk() const {
  int size = 0;
  if (::ioctl(inotify_->fd.get(), FIONREAD, &size) != 0) throw lastSystemError("ioctl (FIONREAD)");
  return static_cast<std::size_t>(size);
}

bool NotifyCenterLinux::wait(const std::function<bool()>& isDone,
                             std::chrono::nanoseconds timeout) {
  const auto deadline = deadlineAfter(timeout);
  std::shared_ptr<Inotify> inotify;
  Observers inherited;  // dropped after the lock
  {
    const std::lock_guard guard(lock_);
    openLk(inherited);
    inotify = inotify_;
  }
  Events events;
  while (reader_.take(isDone, deadline) == NotifyReaderRole::Answer::mine) {
    read(*inotify, events, std::min(deadline, readDeadline()));
    const Registrations handlers = finish(take(events));
    for (const auto& handler : handlers) handler->call(false);
    reader_.giveUp();
  }
  return isDone();
}

// A forked child begins without the observers of its parent.
void NotifyCenterLinux::openLk(Observers& inherited) {
  if (std::exchange(generation_, forkGeneration()) != forkGeneration()) {
    inherited.swap(observers_);
    plainObservers_ = 0;
  }
  if (inotify_ && inotify_->fd) return;
  UniqueFd fresh(::inotify_init1(IN_CLOEXEC));
  if (!fresh) throw lastSystemError("addObserver(_:callback:), inotify_init1 ()");
  inotify_ = std::make_shared<Inotify>();
  inotify_->fd = std::move(fresh);
  taken_ = 0;
}

int NotifyCenterLinux::addWatchLk(const UniqueFd& folder, std::uint32_t events) const {
  // The folder that was checked, whatever stands at its path by now.
  const std::string target = "/proc/self/fd/" + std::to_string(folder.get());
  const int watch = ::inotify_add_watch(inotify_->fd.get(), target.c_str(), events);
  if (watch < 0) {
    throw lastSystemError("addObserver(_:callback:), inotify_add_watch (" + folder_.path() + ")");
  }
  return watch;
}

bool NotifyCenterLinux::isWatchingLk() const noexcept {
  return root_ >= 0 && std::none_of(groups_.begin(), groups_.end(), [](const Group& group) {
           return group.observers > 0 && group.watch < 0;
         });
}

// What still stands where it stood keeps its watch and the events that are unread. Tries again at
// once when the folder vanished between two steps.
void NotifyCenterLinux::watchLk() {
  constexpr int maxTurns = 10;
  for (int turn = 1;; ++turn) {
    try {
      const int root = addWatchLk(folder_.make(), rootEvents);
      if (root != root_) dropLk(root_);
      root_ = root;
      for (std::size_t group = 0; group < groups_.size(); ++group) {
        groups_.at(group).observers > 0 ? watchGroupLk(group) : dropLk(groups_.at(group));
      }
      // The groups are those of the folder that is watched.
      if (addWatchLk(folder_.make(), rootEvents) == root_) return;
      if (turn == maxTurns) throw SystemError(EBUSY, "notify center, watch " + folder_.path());
    } catch (const SystemError& error) {
      unwatchLk();
      if (error.code() != ENOENT || turn == maxTurns) throw;
    }
  }
}

void NotifyCenterLinux::watchGroupLk(std::size_t group) {
  Group& place = groups_.at(group);
  const int watch = addWatchLk(folder_.makeGroup(group), groupEvents);
  if (watch == place.watch) return;
  dropLk(place);
  place.watch = watch;
}

// Also needed for folders that were moved: they keep their watch otherwise.
void NotifyCenterLinux::dropLk(int& watch) {
  if (watch >= 0) ::inotify_rm_watch(inotify_->fd.get(), watch);
  watch = -1;
}

void NotifyCenterLinux::dropLk(Group& group) {
  if (group.watch >= 0) group.earlier = group.watch;
  dropLk(group.watch);
}

void NotifyCenterLinux::unwatchLk() {
  dropLk(root_);
  for (Group& group : groups_) dropLk(group);
}

// Without a folder, as when only the system may make it, whoever reads looks for it every second.
void NotifyCenterLinux::rewatchLk(Outcome& outcome) {
  try {
    watchLk();
  } catch (const SystemError& error) {
    nextTry_ = deadlineAfter(retryPause);  // the watches given up make events of their own
    if (!std::exchange(isRetrying_, true)) outcome.complaints.emplace_back(error.what());
    return;
  }
  compareAllLk(outcome);
}

// When whoever reads has to look without an event.
NotifyCenterLinux::Clock::time_point NotifyCenterLinux::readDeadline() {
  const std::lock_guard guard(lock_);
  if (!isWatchingLk()) return nextTry_;
  return isStale_ ? Clock::now() : Clock::time_point::max();
}

void NotifyCenterLinux::startServerLk() {
  const int error =
      startThread("velum-notify", [weak = weak_from_this(), inotify = inotify_,
                                   server = server_ + 1] { serve(weak, inotify, server); });
  if (error != 0) throw SystemError(error, "addObserver(_:callback:), pthread_create ()");
  ++server_;
  hasServer_ = true;
  isServerLent_ = false;
}

// Keeps no center alive while it waits for events.
void NotifyCenterLinux::serve(const std::weak_ptr<NotifyCenterLinux>& weak,
                              const std::shared_ptr<Inotify>& inotify, unsigned server) {
  if (const auto center = weak.lock()) center->reader_.take();
  Events events;
  for (;;) {
    Clock::time_point deadline;
    {
      const auto center = weak.lock();
      if (!center) return;
      deadline = center->readDeadline();
    }
    read(*inotify, events, deadline);
    const auto center = weak.lock();
    if (!center || !center->serveTurn(events, server)) return;
  }
}

// False when another thread has taken over.
bool NotifyCenterLinux::serveTurn(const Events& events, unsigned server) {
  const Registrations handlers = finish(take(events));
  if (!handlers.empty()) runLong(handlers, server);
  reader_.announce();
  const std::lock_guard guard(lock_);
  return server == server_;
}

// Several could wait for each other, so that only the last one runs here; nobody else has to wait
// for it, or is even read for: who waits for a response reads itself.
void NotifyCenterLinux::runLong(const Registrations& handlers, unsigned server) {
  for (auto next = handlers.begin(); next != handlers.end() - 1; ++next) (*next)->call(false);
  bool isLent = false;
  {
    const std::lock_guard guard(lock_);
    isLent = isServerLent_ = plainObservers_ == 0;
  }
  if (isLent) reader_.giveUp();
  handlers.back()->call(isLent);
  if (!isLent) return;
  {
    const std::lock_guard guard(lock_);
    if (server != server_) return;
    isServerLent_ = false;
  }
  reader_.take();
}

void NotifyCenterLinux::read(const Inotify& inotify, Events& events, Clock::time_point deadline) {
  events.size = 0;
  if (deadline != Clock::time_point::max()) {
    pollfd readable{.fd = inotify.fd.get(), .events = POLLIN, .revents = 0};
    const int count = retryInterrupted([&] {
      const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
      const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
      const timespec limit{.tv_sec = seconds.count(), .tv_nsec = (left - seconds).count()};
      return ::ppoll(&readable, 1, &limit, nullptr);
    });
    if (count <= 0) return;
  }
  const ssize_t size = retryInterrupted(
      [&] { return ::read(inotify.fd.get(), events.bytes.data(), events.bytes.size()); });
  events.size = static_cast<std::size_t>(std::max<ssize_t>(size, 0));
}

NotifyCenterLinux::Outcome NotifyCenterLinux::take(const Events& events) {
  Outcome outcome;
  const std::lock_guard guard(lock_);
  std::vector<Change> changes;
  const bool isComplete = parseLk(events, changes);
  for (const Change& change : changes) compareLk(change.file, change.place, outcome);
  if (!isWatchingLk()) {
    if (Clock::now() >= nextTry_) rewatchLk(outcome);
  } else if (!isComplete || isStale_) {
    compareAllLk(outcome);
  }
  return outcome;
}

// False when the kernel lost events. What was left unread makes the descriptor readable once more.
bool NotifyCenterLinux::parseLk(const Events& events, std::vector<Change>& changes) {
  bool isComplete = true;
  for (std::size_t offset = 0; offset < events.size;) {
    inotify_event event{};
    std::memcpy(&event, events.bytes.data() + offset, sizeof event);
    const char* const name = events.bytes.data() + offset + sizeof event;
    offset += sizeof event + event.len;
    if ((event.mask & IN_Q_OVERFLOW) != 0) isComplete = false;
    noteLk(event, event.len > 0 ? name : "", taken_ + offset, changes);
  }
  taken_ += events.size;
  return isComplete;
}

void NotifyCenterLinux::noteLk(const inotify_event& event, const char* name, std::uint64_t place,
                               std::vector<Change>& changes) {
  if (event.wd < 0) return;
  if (event.wd == root_) {
    // Of a group that was removed, and those that will be, posts may be unread. What is written
    // into a folder that was moved away is posted once more.
    if ((event.mask & IN_DELETE) != 0) {
      dropLk(root_);
    } else {
      unwatchLk();
      for (Group& group : groups_) group.earlier = -1;
    }
    return;
  }
  auto* const group = std::find_if(groups_.begin(), groups_.end(), [&](const Group& one) {
    return one.watch == event.wd || one.earlier == event.wd;
  });
  if (group == groups_.end()) return;  // of an earlier folder
  if ((event.mask & folderIsGone) != 0) {
    if (event.wd == group->watch) dropLk(*group);
    return;
  }
  if (*name == '\0') return;
  if (group->observers == 0) {  // nobody here is interested any more
    dropLk(*group);
    return;
  }
  std::string file{static_cast<char>('0' + (group - groups_.begin())), '/'};
  file += name;
  if ((event.mask & otherFile) != 0) folder_.forget(file);
  if (file == last_.file) last_.watch = -1;
  if ((event.mask & IN_MODIFY) == 0 || !observers_.contains(file)) return;
  const auto known = std::find_if(changes.begin(), changes.end(),
                                  [&](const Change& change) { return change.file == file; });
  if (known == changes.end()) {
    changes.push_back({std::move(file), place});
  } else {
    known->place = place;
  }
}

void NotifyCenterLinux::compareLk(const std::string& file, std::optional<std::uint64_t> place,
                                  Outcome& outcome) {
  const auto entry = observers_.find(file);
  if (entry == observers_.end()) return;
  const NotifyFolder::Look look = folder_.lookAgain(file);
  using State = NotifyFolder::State;
  if (look.state == State::refused) {
    std::string complaint =
        "Refused " + folder_.path() + '/' + file + ": " + systemErrorText(look.error);
    if (refused_.insert(file).second) outcome.complaints.push_back(std::move(complaint));
  }
  // Written and swept away since: there was a post, for those who observed the name by then.
  const bool isGone = look.state == State::absent && place;
  if (look.state != State::posted && !isGone) return;
  for (const auto& registration : entry->second) {
    const bool isOlder = isGone && *place <= registration->since;
    if (isOlder || (!isGone && registration->seen == look.generation)) continue;
    registration->seen = look.generation;
    outcome.due.push_back(registration);
  }
}

void NotifyCenterLinux::compareAllLk(Outcome& outcome) {
  isStale_ = false;
  isRetrying_ = false;
  last_.watch = -1;
  folder_.forgetAll();
  for (const auto& [file, registrations] : observers_) compareLk(file, std::nullopt, outcome);
}

// Without the lock: neither callbacks nor log handlers may be called under it. Leaves the handlers.
NotifyCenterLinux::Registrations NotifyCenterLinux::finish(const Outcome& outcome) {
  for (const std::string& complaint : outcome.complaints) {
    logError({"Velum/NotifyCenter", "read()"}, "{}", complaint);
  }
  Registrations handlers;
  for (const auto& registration : outcome.due) {
    if (registration->kind == Kind::handler) {
      handlers.push_back(registration);
    } else {
      registration->call(false);
    }
  }
  return handlers;
}

void NotifyCenterLinux::sweepNowAndThen() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  auto next = nextSweep_.load(std::memory_order_relaxed);
  const auto pause = std::chrono::steady_clock::duration(sweepPause);
  if (now.count() < next || !nextSweep_.compare_exchange_strong(next, (now + pause).count())) {
    return;
  }
  folder_.sweep();
}

}  // namespace velum
