#include "Velum/Platform/Linux/Notify/NotifyCenterLinux.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/LazyValue.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Directories.h"

namespace velum {
namespace {

constexpr const char* systemFolder = "/run/velum-notify";

std::shared_ptr<NotifyCenterLinux> userCenter() {
  const auto runtime = Directories::shared().runtime();
  return NotifyCenterLinux::make(runtime ? *runtime + "/notify" : "", NotifyFolder::Sharing::user);
}

}  // namespace

class NotifyCenterLinux::Handle final : public Observer {
 public:
  Handle(std::weak_ptr<NotifyCenterLinux> center, std::shared_ptr<NotifyObserver> observer)
      : center_(std::move(center)), observer_(std::move(observer)) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() override {
    observer_->cancel();
    if (const auto center = center_.lock()) center->remove(observer_);
  }

 private:
  std::weak_ptr<NotifyCenterLinux> center_;
  std::shared_ptr<NotifyObserver> observer_;
};

class NotifyCenterLinux::ExpectationHandle final : public Expectation {
 public:
  ExpectationHandle(std::shared_ptr<NotifyCenterLinux> center, std::unique_ptr<Handle> handle)
      : center_(std::move(center)), handle_(std::move(handle)), seen_(center_->expected_) {}

  bool wait(std::chrono::nanoseconds timeout) override {
    const std::uint64_t latest = center_->wait(seen_, timeout);
    return std::exchange(seen_, latest) != latest;
  }

 private:
  std::shared_ptr<NotifyCenterLinux> center_;
  std::unique_ptr<Handle> handle_;
  std::uint64_t seen_;
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
  std::shared_ptr<NotifyCenterLinux> center(new NotifyCenterLinux(std::move(folder), sharing));
  center->readQueue_.setRead([weak = std::weak_ptr(center)](const DispatchQueue& queue) {
    if (const auto self = weak.lock()) self->read(queue);
  });
  return center;
}

NotifyCenterLinux::NotifyCenterLinux(std::string folder, NotifyFolder::Sharing sharing)
    : ForkParticipant(Stage::service), folder_(std::move(folder), sharing) {
  registerForFork();
}

void NotifyCenterLinux::afterForkInChild() noexcept {
  watch_.resetAfterFork();
  observers_.resetAfterFork();
  readQueue_.resetAfterFork();
  hasComplained_ = false;
  lock_.resetAfterFork();
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addObserver(std::string_view name,
                                                                       Callback callback) {
  return addObserver(name, readQueue_.own(), std::move(callback));
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addObserver(
    std::string_view name, std::shared_ptr<DispatchQueue> queue, Callback callback) {
  return add(std::make_shared<NotifyObserver>(name, std::move(queue), std::move(callback)));
}

std::unique_ptr<NotifyCenter::Expectation> NotifyCenterLinux::expect(std::string_view name) {
  return std::make_unique<ExpectationHandle>(
      shared_from_this(), add(std::make_shared<NotifyObserver>(name, nullptr, nullptr)));
}

std::unique_ptr<NotifyCenterLinux::Handle> NotifyCenterLinux::add(
    std::shared_ptr<NotifyObserver> observer) {
  const std::size_t group = observer->group();
  NotifyObservers::Table inherited;  // dropped after the lock
  const std::lock_guard guard(lock_);
  openLk(inherited);
  const bool wasWatching = watch_.isComplete();
  if (!wasWatching) watch_.watch();
  if (watch_.watchOf(group) < 0) watch_.watchGroup(group);
  // After the watch: what is posted from here on gives an event.
  const std::size_t unread = watch_.unread();
  const bool areEventsTaken = unread == 0 && !reader_.isTaken();
  observers_.begin(*observer, watch_.watchOf(group), watch_.taken() + unread, areEventsTaken);
  if (observer->queue()) readQueue_.enter(observer->queue(), descriptorLk());
  observers_.add(observer);
  watch_.enter(group);
  if (!wasWatching && observers_.names() > 1) {  // others may have been posted meanwhile
    observers_.setStale();
    readQueue_.retryAfter(Clock::duration::zero());
  }
  return std::make_unique<Handle>(weak_from_this(), std::move(observer));
}

void NotifyCenterLinux::remove(const std::shared_ptr<NotifyObserver>& observer) {
  std::shared_ptr<DispatchQueue> left;  // dropped after the lock
  const std::lock_guard guard(lock_);
  if (generation_ != forkGeneration()) return;  // counted in the parent only
  if (!observers_.remove(observer, watch_.watchOf(observer->group()))) return;
  watch_.leave(observer->group());
  if (observer->queue()) left = readQueue_.leave(observer->queue(), descriptorLk());
}

// A forked child begins without the observers of its parent.
void NotifyCenterLinux::openLk(NotifyObservers::Table& inherited) {
  if (std::exchange(generation_, forkGeneration()) != forkGeneration()) {
    inherited = observers_.takeAll();
    readQueue_.clear();
  }
  watch_.open();
}

// When a thread that waits has to look without an event.
NotifyCenterLinux::Clock::time_point NotifyCenterLinux::readDeadline() {
  const std::lock_guard guard(lock_);
  const bool isDone = watch_.isComplete() && !observers_.isStale();
  return isDone ? Clock::time_point::max() : readQueue_.nextRetry();
}

std::uint64_t NotifyCenterLinux::wait(std::uint64_t seen, std::chrono::nanoseconds timeout) {
  const auto isDone = [&] { return expected_ != seen; };
  const auto deadline = deadlineAfter(timeout);
  Inotify inotify;
  NotifyObservers::Table inherited;  // dropped after the lock
  {
    const std::lock_guard guard(lock_);
    openLk(inherited);
    inotify = watch_.inotify();
  }
  NotifyWatch::Events events;
  while (reader_.take(isDone, deadline) == NotifyReaderRole::Answer::mine) {
    events.read(*inotify, std::min(deadline, readDeadline()));
    const NotifyNews news = take(events);
    if (news.isExpected()) ++expected_;
    news.tell(nullptr);
    reader_.giveUp();
  }
  const std::lock_guard guard(lock_);
  readQueue_.resume(descriptorLk());
  return expected_;
}

// On the queue where events are read. While a thread waits, it reads for all.
void NotifyCenterLinux::read(const DispatchQueue& queue) {
  Inotify inotify;
  {
    const std::lock_guard guard(lock_);
    if (generation_ != forkGeneration()) return;
    if (!reader_.tryTake()) {
      readQueue_.pause();
      return;
    }
    readQueue_.resume(descriptorLk());
    inotify = watch_.inotify();
  }
  NotifyWatch::Events events;
  events.read(*inotify, {});
  const NotifyNews news = take(events);
  if (news.isExpected()) ++expected_;
  reader_.giveUp();
  news.tell(&queue);
}

NotifyNews NotifyCenterLinux::take(const NotifyWatch::Events& events) {
  NotifyNews news;
  std::vector<NotifyWatch::Change> changes;
  const std::lock_guard guard(lock_);
  const bool isWhole = watch_.take(events, changes);
  observers_.compare(changes, news);
  const bool mayTry = Clock::now() >= readQueue_.nextRetry();
  if (!watch_.isComplete()) {
    if (mayTry) watchAgainLk(news);
  } else if (!isWhole || (observers_.isStale() && mayTry)) {
    compareAllLk(news);
  }
  return news;
}

// Without a folder, as when only the system may make it, it is looked for every second.
void NotifyCenterLinux::watchAgainLk(NotifyNews& news) {
  try {
    watch_.watch();
  } catch (const SystemError& error) {
    readQueue_.retryAfter(NotifyReadQueue::retryPause);  // watches given up make events themselves
    if (!std::exchange(hasComplained_, true)) news.complain(error.what());
    return;
  }
  compareAllLk(news);
}

void NotifyCenterLinux::compareAllLk(NotifyNews& news) {
  hasComplained_ = false;
  observers_.compareAll(news);
  if (observers_.isStale()) readQueue_.retryAfter(NotifyReadQueue::retryPause);
}

}  // namespace velum
