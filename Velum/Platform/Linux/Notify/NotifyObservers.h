#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Notify/NotifyFolder.h"
#include "Velum/Platform/Linux/Notify/NotifyWatch.h"
#include "Velum/Platform/NotifyCenter.h"

namespace velum {

/// The last generation of each user who posted a name.
using NotifyGenerations = std::vector<std::pair<uid_t, NotifyGeneration>>;

/// One observer of a name. Shared by the center, the observer's handle and calls on their way.
class NotifyObserver {
 public:
  /// Without a queue, it stands for a thread that waits, and has no callback.
  NotifyObserver(std::string_view name, std::shared_ptr<DispatchQueue> queue,
                 NotifyCenter::Callback callback)
      : name_(NotifyFolder::fileName(name)),
        queue_(std::move(queue)),
        callback_(std::move(callback)) {}

  /// As NotifyFolder::fileName gave it.
  const std::string& name() const noexcept { return name_; }
  const std::shared_ptr<DispatchQueue>& queue() const noexcept { return queue_; }
  std::size_t group() const noexcept { return NotifyFolder::groupOf(name_); }

  /// Nothing after `cancel`. Any thread.
  void call() const {
    if (!isCancelled()) callback_();
  }
  bool isCancelled() const noexcept { return isCancelled_.load(std::memory_order_acquire); }
  void cancel() noexcept { isCancelled_.store(true, std::memory_order_release); }

 private:
  friend class NotifyObservers;

  const std::string name_;
  const std::shared_ptr<DispatchQueue> queue_;
  const NotifyCenter::Callback callback_;
  std::atomic<bool> isCancelled_{false};
  NotifyGenerations seen_;
  std::uint64_t since_ = 0;  // the place in the stream of events; earlier ones tell of older posts
};

/// What one reading of events asks for. It is collected under the center's lock and told without:
/// neither callbacks nor log handlers may be called under it.
class NotifyNews {
 public:
  void add(std::shared_ptr<NotifyObserver> observer) { due_.push_back(std::move(observer)); }
  void complain(std::string text) { complaints_.push_back(std::move(text)); }

  /// Whether threads that wait are to be told.
  bool isExpected() const;
  /// Logs the complaints and has the callbacks called, each on its queue: those of `own`, which
  /// this runs on, last and at once, since they may take long.
  void tell(const DispatchQueue* own) const;

 private:
  std::vector<std::shared_ptr<NotifyObserver>> due_;
  std::vector<std::string> complaints_;
};

/// Who observes which name, and what of it is news to him. An event only says where to look; what
/// was posted is told by a file's generation, compared for each observer with the one it saw last
/// of that poster. Under its owner's lock.
class NotifyObservers {
 public:
  using Table = std::unordered_map<std::string, std::vector<std::shared_ptr<NotifyObserver>>>;

  explicit NotifyObservers(const NotifyFolder& folder) : folder_(folder) {}

  /// Notes what the observer's name holds: that is no news to it. Its group is watched already, as
  /// `watch`, with `place` the end of the stream of events. `areEventsTaken` when none is unread
  /// and, asked after that, no thread is about to take any. Throws SystemError.
  void begin(NotifyObserver& observer, int watch, std::uint64_t place, bool areEventsTaken);
  /// Has it told from now on; after `begin`.
  void add(const std::shared_ptr<NotifyObserver>& observer);
  /// False when it is not here.
  bool remove(const std::shared_ptr<NotifyObserver>& observer, int watch);
  /// How many names somebody observes.
  std::size_t names() const noexcept { return observers_.size(); }

  /// Of the files that events told of.
  void compare(const std::vector<NotifyWatch::Change>& changes, NotifyNews& news);
  /// Of all observed names, for events that were lost or not watched for.
  void compareAll(NotifyNews& news);
  /// Not all observed files could be compared: it is to be done again.
  bool isStale() const noexcept { return isStale_; }
  void setStale() noexcept { isStale_ = true; }

  /// For a forked child; the observers themselves are `takeAll`n later.
  void resetAfterFork() noexcept;
  /// Forgets the observers, which are to be dropped without the lock.
  Table takeAll() noexcept { return std::exchange(observers_, {}); }

 private:
  static constexpr std::uint64_t noPlace = 0;  // in the stream of events: not told by one

  NotifyGenerations present(const std::string& name) const;
  void compare(const std::string& name, const std::string& file, std::uint64_t place,
               NotifyNews& news);
  static bool isNews(const NotifyFolder::LastPost& post, std::uint64_t place,
                     NotifyObserver& observer);
  void complainOnce(const std::string& name, std::string text, NotifyNews& news);

  const NotifyFolder& folder_;
  Table observers_;  // by the name's file name
  /// What the name that was observed last held then: whoever asks often observes it often.
  struct {
    std::string name;
    NotifyGenerations seen;
    int watch = -1;  // of its group; -1 when there may have been posts since
  } last_;
  bool isStale_ = false;
  std::unordered_set<std::string> complainedOf_;  // names
};

}  // namespace velum
