#pragma once

#include <sys/inotify.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Velum/Platform/AtFork.h"
#include "Velum/Platform/Linux/NotifyFolderLinux.h"
#include "Velum/Platform/Linux/NotifyReaderLinux.h"
#include "Velum/Platform/NotifyCenter.h"
#include "Velum/Platform/Posix/UniqueFd.h"
#include "Velum/UnfairLock.h"

namespace velum {

/// The notify center of one folder: one inotify descriptor with a watch for the folder and for each
/// group of files in it, however many names are observed. An event only says where to look; what
/// was posted is told by the file's generation, compared for each observer with the one it saw
/// last.
///
/// Events are read by a thread of the center, which is started for the first observer that does not
/// only wait, and by threads that wait for a response. The center's thread runs what may take long
/// itself, as long as nobody but such handlers would have to wait; meanwhile it is not the reader.
class NotifyCenterLinux final : public NotifyCenter,
                                public ForkParticipant,
                                public std::enable_shared_from_this<NotifyCenterLinux> {
 public:
  /// A center of its own for `folder`, which is made when it is first used. Ends with its last
  /// reference; observers don't keep it.
  static std::shared_ptr<NotifyCenterLinux> make(std::string folder, NotifyFolder::Sharing sharing);

  NotifyCenterLinux(const NotifyCenterLinux&) = delete;
  NotifyCenterLinux& operator=(const NotifyCenterLinux&) = delete;
  ~NotifyCenterLinux() override;

  void post(std::string_view name) override;
  std::unique_ptr<Observer> addObserver(std::string_view name, Callback callback) override;
  std::unique_ptr<Observer> addHandler(std::string_view name, Handler handler) override;
  std::unique_ptr<Observer> addAwaited(std::string_view name, Callback callback) override;
  bool wait(const std::function<bool()>& isDone, std::chrono::nanoseconds timeout) override;

  void prepareFork() noexcept override { lock_.lock(); }
  void afterForkInParent() noexcept override { lock_.unlock(); }
  void afterForkInChild() noexcept override;

 private:
  /// Who may be kept waiting by whom.
  enum class Kind : std::uint8_t { observer, handler, awaited };
  struct Registration;
  class Handle;
  using Registrations = std::vector<std::shared_ptr<Registration>>;
  using Observers = std::unordered_map<std::string, Registrations>;
  using Clock = NotifyReaderRole::Clock;
  /// The descriptor, which outlives a center whose thread is reading.
  struct Inotify {
    UniqueFd fd;
  };
  struct Events {  // NOLINT(*-member-init): filled by read
    alignas(inotify_event) std::array<char, 16384> bytes;
    std::size_t size = 0;
  };
  /// A group is watched when somebody observes a name in it, and perhaps some time after.
  struct Group {
    int watch = -1;
    int earlier = -1;  // given up; its last events may be unread
    int observers = 0;
  };
  /// A file that was written, and where in the stream of events the last one says so.
  struct Change {
    std::string file;
    std::uint64_t place;
  };
  /// What one reading of events asks for, once the lock is released.
  struct Outcome {
    Registrations due;
    std::vector<std::string> complaints;
  };

  NotifyCenterLinux(std::string folder, NotifyFolder::Sharing sharing);

  std::unique_ptr<Observer> add(std::string_view name, Kind kind, Handler handler);
  void openLk(Observers& inherited);
  void watchLk();
  void watchGroupLk(std::size_t group);
  void unwatchLk();
  void dropLk(int& watch);
  void dropLk(Group& group);
  bool isWatchingLk() const noexcept;
  int addWatchLk(const UniqueFd& folder, std::uint32_t events) const;
  void rewatchLk(Outcome& outcome);
  Clock::time_point readDeadline();
  void startServerLk();
  static void serve(const std::weak_ptr<NotifyCenterLinux>& weak,
                    const std::shared_ptr<Inotify>& inotify, unsigned server);
  bool serveTurn(const Events& events, unsigned server);
  void runLong(const Registrations& handlers, unsigned server);
  static void read(const Inotify& inotify, Events& events, Clock::time_point deadline);
  Outcome take(const Events& events);
  bool parseLk(const Events& events, std::vector<Change>& changes);
  void noteLk(const inotify_event& event, const char* name, std::uint64_t place,
              std::vector<Change>& changes);
  void compareLk(const std::string& file, std::optional<std::uint64_t> place, Outcome& outcome);
  void compareAllLk(Outcome& outcome);
  static Registrations finish(const Outcome& outcome);
  void sweepNowAndThen();
  void remove(const std::shared_ptr<Registration>& registration);
  std::size_t unreadLk() const;
  NotifyGeneration presentLk(const std::string& file, std::size_t unread);

  const NotifyFolder folder_;
  std::atomic<std::chrono::steady_clock::rep> nextSweep_{0};
  NotifyReaderRole reader_;

  UnfairLock lock_;
  unsigned generation_ = forkGeneration();
  std::shared_ptr<Inotify> inotify_;
  std::uint64_t taken_ = 0;  // bytes of its events
  int root_ = -1;            // the watch of the folder itself; -1 while there is none
  bool isStale_ = false;     // not all observed files were compared since that watch was made
  std::array<Group, NotifyFolder::groups> groups_;
  bool isRetrying_ = false;
  Clock::time_point nextTry_;  // to watch the folder
  unsigned server_ = 0;        // the center's thread, by number; an earlier one ends
  bool hasServer_ = false;
  bool isServerLent_ = false;  // it runs a handler that may take long
  int plainObservers_ = 0;
  /// What the name that was observed last held then: whoever asks often observes it often.
  struct {
    std::string file;
    NotifyGeneration generation;
    int watch = -1;  // of its group; -1 when there may have been posts since
  } last_;
  Observers observers_;                      // by file name
  std::unordered_set<std::string> refused_;  // complained about already
};

}  // namespace velum
