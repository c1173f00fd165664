#include "Velum/Platform/Linux/Notify/NotifyCenterLinux.h"

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/LazyValue.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Directories.h"

namespace velum {
namespace {

constexpr const char* systemFolder = "/run/velum-notify";
constexpr std::chrono::seconds retryPause{1};
constexpr std::chrono::minutes sweepPause{1};
constexpr std::uint64_t noPlace = 0;  // in the stream of events: not told by one

std::shared_ptr<NotifyCenterLinux> userCenter() {
  const auto runtime = Directories::shared().runtime();
  return NotifyCenterLinux::make(runtime ? *runtime + "/notify" : "", NotifyFolder::Sharing::user);
}

}  // namespace

/// One observer. Shared by the center, the handle and deliveries on their way.
struct NotifyCenterLinux::Registration {
  Registration(std::string fileName, Queue itsQueue, Callback itsCallback)
      : name(std::move(fileName)), queue(std::move(itsQueue)), callback(std::move(itsCallback)) {}

  void call() const {
    if (!isRemoved.load(std::memory_order_acquire)) callback();
  }

  const std::string name;
  const Queue queue;  // null for one that is awaited
  const Callback callback;
  Seen seen;
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
    static constinit LazyStatic<std::shared_ptr<NotifyCenterLinux>> user;
    return *user.get(userCenter);
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
    : ForkParticipant(Stage::service),
      folder_(std::move(folder), sharing),
      own_(DispatchQueue::serialWithThread("velum-notify")) {
  registerForFork();
}

void NotifyCenterLinux::afterForkInChild() noexcept {
  watch_.resetAfterFork();
  source_.reset();
  timer_.reset();
  last_.watch = -1;
  isStale_ = false;
  isRetrying_ = false;
  nextTry_ = {};
  lock_.resetAfterFork();
}

void NotifyCenterLinux::post(std::string_view name) {
  if (folder_.post(name)) sweepNowAndThen();
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addObserver(std::string_view name,
                                                                       Callback callback) {
  return add(name, own_, std::move(callback));
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addObserver(std::string_view name,
                                                                       Queue queue,
                                                                       Callback callback) {
  return add(name, std::move(queue), std::move(callback));
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addAwaited(std::string_view name,
                                                                      Callback callback) {
  return add(name, nullptr, std::move(callback));
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::add(std::string_view name, Queue queue,
                                                               Callback callback) {
  auto registration = std::make_shared<Registration>(NotifyFolder::fileName(name), std::move(queue),
                                                     std::move(callback));
  Observers inherited;  // dropped after the lock
  const std::lock_guard guard(lock_);
  openLk(inherited);
  const std::size_t group = NotifyFolder::groupOf(registration->name);
  const bool wasWatching = watch_.isComplete();
  if (!wasWatching) watch_.watch();
  if (watch_.watchOf(group) < 0) watch_.watchGroup(group);
  // After the watch: what is posted from here on gives an event.
  const std::size_t unread = watch_.unread();
  registration->since = watch_.taken() + unread;
  registration->seen = presentLk(registration->name, unread);
  if (registration->queue) enterLk(registration->queue);
  observers_[registration->name].push_back(registration);
  watch_.enter(group);
  if (!wasWatching && observers_.size() > 1) {  // others may have been posted meanwhile
    isStale_ = true;
    tryAgainLk(Clock::duration::zero());
  }
  return std::make_unique<Handle>(weak_from_this(), std::move(registration));
}

void NotifyCenterLinux::remove(const std::shared_ptr<Registration>& registration) {
  Queue left;  // dropped after the lock
  const std::lock_guard guard(lock_);
  if (generation_ != forkGeneration()) return;  // counted in the parent only
  const auto entry = observers_.find(registration->name);
  if (entry == observers_.end() || std::erase(entry->second, registration) == 0) return;
  const std::size_t group = NotifyFolder::groupOf(registration->name);
  watch_.leave(group);
  if (registration->queue) left = leaveLk(registration->queue);
  if (!entry->second.empty()) return;
  last_ = {registration->name, registration->seen, watch_.watchOf(group)};
  observers_.erase(entry);
}

// What a name holds whose group is watched. To look is most of what adding an observer takes. What
// was last known holds when all events are taken: none is unread, and, asked after that, no thread
// is about to take any.
NotifyCenterLinux::Seen NotifyCenterLinux::presentLk(const std::string& name, std::size_t unread) {
  const bool isKnown = unread == 0 && !isStale_ && last_.watch >= 0 && last_.name == name &&
                       last_.watch == watch_.watchOf(NotifyFolder::groupOf(name)) &&
                       !reader_.isTaken();
  if (isKnown) return last_.seen;
  Seen seen;
  for (const std::string& file : folder_.filesOf(name)) {
    const NotifyFolder::Look look = folder_.look(file);
    if (look.state == NotifyFolder::State::posted) seen.emplace_back(look.poster, look.generation);
    if (look.state == NotifyFolder::State::unread) {
      throw SystemError(look.error,
                        "addObserver(_:callback:), read (" + folder_.path() + '/' + file + ")");
    }
  }
  return seen;
}

// A forked child begins without the observers of its parent.
void NotifyCenterLinux::openLk(Observers& inherited) {
  if (std::exchange(generation_, forkGeneration()) != forkGeneration()) {
    inherited.swap(observers_);
    queues_.clear();
    queue_ = nullptr;
  }
  watch_.open();
}

void NotifyCenterLinux::enterLk(const Queue& queue) {
  auto place = std::ranges::find(queues_, queue, &QueueUse::queue);
  if (place == queues_.end()) place = queues_.insert(queues_.end(), {queue, 0});
  const Queue& wanted = queues_.size() == 1 ? queues_.front().queue : own_;
  if (wanted != queue_ || !source_) {
    try {
      readOnLk(wanted);
    } catch (...) {
      if (place->observers == 0) queues_.erase(place);
      throw;
    }
  }
  ++place->observers;
}

// Returns what is to be dropped without the lock.
NotifyCenterLinux::Queue NotifyCenterLinux::leaveLk(const Queue& queue) {
  const auto place = std::ranges::find(queues_, queue, &QueueUse::queue);
  if (--place->observers > 0) return nullptr;
  Queue left = std::move(place->queue);
  queues_.erase(place);
  const bool isOther = queues_.size() == 1 && queues_.front().queue != queue_;
  if (isOther) {
    queue_ = queues_.front().queue;
    source_.reset();
    resumeLk();
  }
  return left;
}

void NotifyCenterLinux::readOnLk(const Queue& queue) {
  source_ = DispatchSource::readable(watch_.inotify()->fd.get(), *queue,
                                     [weak = weak_from_this(), on = queue.get()] {
                                       if (const auto center = weak.lock()) center->turn(*on);
                                     });
  queue_ = queue;
}

// After a waiting thread has read. Without descriptors, by time.
void NotifyCenterLinux::resumeLk() {
  if (source_ || !queue_) return;
  try {
    readOnLk(queue_);
  } catch (const SystemError&) {
    tryAgainLk(retryPause);
  }
}

void NotifyCenterLinux::tryAgainLk(Clock::duration delay) {
  nextTry_ = deadlineAfter(delay);
  if (!queue_) return;  // then only threads that wait have anything to look for
  timer_ = DispatchSource::timer(delay, *queue_, [weak = weak_from_this(), on = queue_.get()] {
    if (const auto center = weak.lock()) center->turn(*on);
  });
}

// When a thread that waits has to look without an event.
NotifyCenterLinux::Clock::time_point NotifyCenterLinux::readDeadline() {
  const std::lock_guard guard(lock_);
  return isStale_ || !watch_.isComplete() ? nextTry_ : Clock::time_point::max();
}

bool NotifyCenterLinux::wait(const std::function<bool()>& isDone,
                             std::chrono::nanoseconds timeout) {
  const auto deadline = deadlineAfter(timeout);
  std::shared_ptr<NotifyWatch::Inotify> inotify;
  Observers inherited;  // dropped after the lock
  {
    const std::lock_guard guard(lock_);
    openLk(inherited);
    inotify = watch_.inotify();
  }
  NotifyWatch::Events events;
  while (reader_.take(isDone, deadline) == NotifyReaderRole::Answer::mine) {
    events.read(*inotify, std::min(deadline, readDeadline()));
    const Outcome outcome = take(events);
    callAwaited(outcome);
    callOthers(outcome, nullptr);
    reader_.giveUp();
  }
  const std::lock_guard guard(lock_);
  resumeLk();
  return isDone();
}

// On the queue where events are read. While a thread waits, it reads for all.
void NotifyCenterLinux::turn(const DispatchQueue& queue) {
  std::shared_ptr<NotifyWatch::Inotify> inotify;
  {
    const std::lock_guard guard(lock_);
    if (generation_ != forkGeneration()) return;
    if (!reader_.tryTake()) {
      source_.reset();
      return;
    }
    resumeLk();
    inotify = watch_.inotify();
  }
  NotifyWatch::Events events;
  events.read(*inotify, {});
  const Outcome outcome = take(events);
  callAwaited(outcome);
  reader_.giveUp();
  callOthers(outcome, &queue);
}

NotifyCenterLinux::Outcome NotifyCenterLinux::take(const NotifyWatch::Events& events) {
  Outcome outcome;
  std::vector<NotifyWatch::Change> changes;
  const std::lock_guard guard(lock_);
  const bool isWhole = watch_.take(events, changes);
  for (const NotifyWatch::Change& change : changes) {
    if (change.name == last_.name) last_.watch = -1;
    if (change.isPost) compareLk(change.name, change.file, change.place, outcome);
  }
  const bool mayTry = Clock::now() >= nextTry_;
  if (!watch_.isComplete()) {
    if (mayTry) rewatchLk(outcome);
  } else if (!isWhole || (isStale_ && mayTry)) {
    compareAllLk(outcome);
  }
  return outcome;
}

// Without a folder, as when only the system may make it, it is looked for every second.
void NotifyCenterLinux::rewatchLk(Outcome& outcome) {
  try {
    watch_.watch();
  } catch (const SystemError& error) {
    tryAgainLk(retryPause);  // the watches given up make events of their own
    if (!std::exchange(isRetrying_, true)) outcome.complaints.emplace_back(error.what());
    return;
  }
  compareAllLk(outcome);
}

void NotifyCenterLinux::compareAllLk(Outcome& outcome) {
  isStale_ = false;
  isRetrying_ = false;
  last_.watch = -1;
  folder_.forgetAll();
  for (const auto& [name, registrations] : observers_) {
    try {
      for (const auto& file : folder_.filesOf(name)) compareLk(name, file, noPlace, outcome);
    } catch (const SystemError& error) {
      complainLk(name, error.what(), outcome);
      isStale_ = true;
    }
  }
  if (isStale_) tryAgainLk(retryPause);
}

void NotifyCenterLinux::compareLk(const std::string& name, const std::string& file,
                                  std::uint64_t place, Outcome& outcome) {
  const auto entry = observers_.find(name);
  if (entry == observers_.end()) return;
  const NotifyFolder::Look look = folder_.lookAgain(file);
  using State = NotifyFolder::State;
  if (look.state == State::refused || look.state == State::unread) {
    const char* const what = look.state == State::refused ? "Refused " : "Can't read ";
    complainLk(name, what + folder_.path() + '/' + file + ": " + systemErrorText(look.error),
               outcome);
  }
  if (look.state == State::unread && place == noPlace) isStale_ = true;
  for (const auto& observer : entry->second) {
    if (isNews(look, place, *observer)) outcome.due.push_back(observer);
  }
}

bool NotifyCenterLinux::isNews(const NotifyFolder::Look& look, std::uint64_t place,
                               Registration& observer) {
  switch (look.state) {
    case NotifyFolder::State::posted: {
      auto known = std::ranges::find(observer.seen, look.poster, &Seen::value_type::first);
      if (known == observer.seen.end()) {
        observer.seen.emplace_back(look.poster, look.generation);
        return true;
      }
      return std::exchange(known->second, look.generation) != look.generation;
    }
    // Written, and swept away since or not to be read: there was a post, for those who observed the
    // name by then.
    case NotifyFolder::State::absent:
    case NotifyFolder::State::unread:
      return place > observer.since;
    default:
      return false;
  }
}

// Once for each name.
void NotifyCenterLinux::complainLk(const std::string& name, std::string text, Outcome& outcome) {
  if (refused_.insert(name).second) outcome.complaints.push_back(std::move(text));
}

// Without the lock: neither callbacks nor log handlers may be called under it.
void NotifyCenterLinux::callAwaited(const Outcome& outcome) {
  for (const auto& registration : outcome.due) {
    if (!registration->queue) registration->call();
  }
}

// Those of the queue this runs on come last: they may take long.
void NotifyCenterLinux::callOthers(const Outcome& outcome, const DispatchQueue* own) {
  for (const std::string& complaint : outcome.complaints) {
    logError({"Velum/NotifyCenter", "read()"}, "{}", complaint);
  }
  for (const auto& registration : outcome.due) {
    const auto* const queue = registration->queue.get();
    if (queue == nullptr || queue == own) continue;
    registration->queue->async([registration] { registration->call(); });
  }
  for (const auto& registration : outcome.due) {
    if (own != nullptr && registration->queue.get() == own) registration->call();
  }
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
