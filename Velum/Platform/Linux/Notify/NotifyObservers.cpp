#include "Velum/Platform/Linux/Notify/NotifyObservers.h"

#include <algorithm>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"

namespace velum {

bool NotifyNews::isExpected() const {
  return std::ranges::any_of(
      due_, [](const auto& observer) { return !observer->queue() && !observer->isCancelled(); });
}

void NotifyNews::tell(const DispatchQueue* own) const {
  for (const std::string& complaint : complaints_) {
    logError({"Velum/NotifyCenter", "read()"}, "{}", complaint);
  }
  for (const auto& observer : due_) {
    const auto* const queue = observer->queue().get();
    if (queue == nullptr || queue == own) continue;
    observer->queue()->async([observer] { observer->call(); });
  }
  for (const auto& observer : due_) {
    if (own != nullptr && observer->queue().get() == own) observer->call();
  }
}

// To look is most of what adding an observer takes. What was last known holds when all events are
// taken.
void NotifyObservers::begin(NotifyObserver& observer, int watch, std::uint64_t place,
                            bool areEventsTaken) {
  const bool isKnown = areEventsTaken && !isStale_ && last_.watch >= 0 &&
                       last_.name == observer.name_ && last_.watch == watch;
  observer.since_ = place;
  observer.seen_ = isKnown ? last_.seen : present(observer.name_);
}

NotifyGenerations NotifyObservers::present(const std::string& name) const {
  NotifyGenerations seen;
  for (const std::string& file : folder_.filesOf(name)) {
    const NotifyFolder::LastPost post = folder_.read(file);
    if (post.state == NotifyFolder::State::posted) seen.emplace_back(post.poster, post.generation);
    if (post.state == NotifyFolder::State::unread) {
      throw SystemError(post.error,
                        "addObserver(_:callback:), read (" + folder_.path() + '/' + file + ")");
    }
  }
  return seen;
}

void NotifyObservers::add(const std::shared_ptr<NotifyObserver>& observer) {
  observers_[observer->name_].push_back(observer);
}

bool NotifyObservers::remove(const std::shared_ptr<NotifyObserver>& observer, int watch) {
  const auto entry = observers_.find(observer->name_);
  if (entry == observers_.end() || std::erase(entry->second, observer) == 0) return false;
  if (entry->second.empty()) {
    last_ = {observer->name_, observer->seen_, watch};
    observers_.erase(entry);
  }
  return true;
}

void NotifyObservers::resetAfterFork() noexcept {
  last_.watch = -1;
  isStale_ = false;
}

void NotifyObservers::compare(const std::vector<NotifyWatch::Change>& changes, NotifyNews& news) {
  for (const NotifyWatch::Change& change : changes) {
    if (change.name == last_.name) last_.watch = -1;
    if (change.isPost) compare(change.name, change.file, change.place, news);
  }
}

void NotifyObservers::compareAll(NotifyNews& news) {
  isStale_ = false;
  last_.watch = -1;
  folder_.forgetAll();
  for (const auto& [name, observers] : observers_) {
    try {
      for (const auto& file : folder_.filesOf(name)) compare(name, file, noPlace, news);
    } catch (const SystemError& error) {
      complainOnce(name, error.what(), news);
      isStale_ = true;
    }
  }
}

void NotifyObservers::compare(const std::string& name, const std::string& file, std::uint64_t place,
                              NotifyNews& news) {
  const auto entry = observers_.find(name);
  if (entry == observers_.end()) return;
  const NotifyFolder::LastPost post = folder_.readWatched(file);
  using State = NotifyFolder::State;
  if (post.state == State::refused || post.state == State::unread) {
    const char* const what = post.state == State::refused ? "Refused " : "Can't read ";
    complainOnce(name, what + folder_.path() + '/' + file + ": " + systemErrorText(post.error),
                 news);
  }
  if (post.state == State::unread && place == noPlace) isStale_ = true;
  for (const auto& observer : entry->second) {
    if (isNews(post, place, *observer)) news.add(observer);
  }
}

bool NotifyObservers::isNews(const NotifyFolder::LastPost& post, std::uint64_t place,
                             NotifyObserver& observer) {
  switch (post.state) {
    case NotifyFolder::State::posted: {
      auto known =
          std::ranges::find(observer.seen_, post.poster, &NotifyGenerations::value_type::first);
      if (known == observer.seen_.end()) {
        observer.seen_.emplace_back(post.poster, post.generation);
        return true;
      }
      return std::exchange(known->second, post.generation) != post.generation;
    }
    // Written, and swept away since or not to be read: there was a post, for those who observed the
    // name by then.
    case NotifyFolder::State::absent:
    case NotifyFolder::State::unread:
      return place > observer.since_;
    default:
      return false;
  }
}

void NotifyObservers::complainOnce(const std::string& name, std::string text, NotifyNews& news) {
  if (complainedOf_.insert(name).second) news.complain(std::move(text));
}

}  // namespace velum
