#include "Velum/Platform/Linux/NotifyCenterLinux.h"

#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <mutex>
#include <utility>

#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Directories.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

constexpr const char* systemFolder = "/run/velum-notify";
constexpr std::chrono::seconds retryPause{1};
constexpr std::chrono::minutes sweepPause{1};

constexpr std::uint32_t folderIsGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
// A file that was removed while a poster had it open is none of ours any more: the poster notices
// and posts again.
constexpr std::uint32_t watched = IN_MODIFY | IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK;

std::shared_ptr<NotifyCenterLinux> userCenter() {
  const auto runtime = Directories::shared().runtime();
  return NotifyCenterLinux::make(runtime ? *runtime + "/notify" : "", NotifyFolder::Sharing::user);
}

}  // namespace

/// One observer. Shared by the center, the handle and deliveries on their way.
struct NotifyCenterLinux::Registration {
  Registration(std::string fileName, Callback handler)
      : file(std::move(fileName)), callback(std::move(handler)) {}

  const std::string file;
  const Callback callback;
  NotifyGeneration seen;
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
}

void NotifyCenterLinux::afterForkInChild() noexcept {
  // The parent reads this descriptor's events; a child that read along would steal them.
  inotify_.reset();
  watch_ = -1;
  isRetrying_ = false;
  lock_.resetAfterFork();
}

void NotifyCenterLinux::post(std::string_view name) {
  if (folder_.post(name)) sweepNowAndThen();
}

std::unique_ptr<NotifyCenter::Observer> NotifyCenterLinux::addObserver(std::string_view name,
                                                                       Callback callback) {
  auto registration =
      std::make_shared<Registration>(NotifyFolder::fileName(name), std::move(callback));
  Observers inherited;
  const std::lock_guard guard(lock_);
  if (std::exchange(generation_, forkGeneration()) != forkGeneration()) inherited.swap(observers_);
  openLk();
  if (watch_ < 0) watchLk();
  // After the watch: what is posted from here on gives an event.
  registration->seen = folder_.look(registration->file).generation;
  observers_[registration->file].push_back(registration);
  return std::make_unique<Handle>(weak_from_this(), std::move(registration));
}

void NotifyCenterLinux::remove(const std::shared_ptr<Registration>& registration) {
  const std::lock_guard guard(lock_);
  const auto entry = observers_.find(registration->file);
  if (entry == observers_.end()) return;
  std::erase(entry->second, registration);
  if (entry->second.empty()) observers_.erase(entry);
}

void NotifyCenterLinux::openLk() {
  if (inotify_) return;
  UniqueFd fresh(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!fresh) throw lastSystemError("addObserver(_:callback:), inotify_init1 ()");
  source_ = DispatchSource::readable(fresh.get(), *queue_, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->read();
  });
  inotify_ = std::move(fresh);
}

void NotifyCenterLinux::watchLk() {
  const UniqueFd folder = folder_.make();
  // The folder that was checked, whatever stands at its path by now.
  const std::string target = "/proc/self/fd/" + std::to_string(folder.get());
  watch_ = ::inotify_add_watch(inotify_.get(), target.c_str(), watched);
  if (watch_ < 0) {
    throw lastSystemError("addObserver(_:callback:), inotify_add_watch (" + folder_.path() + ")");
  }
}

// Without a folder, as when only the system may make it, looks for it every second.
void NotifyCenterLinux::rewatchLk(Outcome& outcome) {
  try {
    watchLk();
  } catch (const SystemError& error) {
    if (!std::exchange(isRetrying_, true)) outcome.complaints.emplace_back(error.what());
    queue_->asyncAfter(retryPause, [weak = weak_from_this(), generation = forkGeneration()] {
      const auto self = weak.lock();
      if (!self || generation != forkGeneration()) return;
      Outcome later;
      {
        const std::lock_guard guard(self->lock_);
        if (self->watch_ < 0) self->rewatchLk(later);
      }
      finish(later);
    });
    return;
  }
  isRetrying_ = false;
  compareAllLk(outcome);
}

void NotifyCenterLinux::read() {
  Outcome outcome;
  {
    const std::lock_guard guard(lock_);
    std::vector<std::string> changed;
    const bool isComplete = readEventsLk(changed);
    for (const std::string& file : changed) compareLk(file, true, outcome);
    if (watch_ < 0) {
      rewatchLk(outcome);
    } else if (!isComplete) {
      compareAllLk(outcome);
    }
  }
  finish(outcome);
}

// False when the kernel lost events. What is left unread makes the descriptor readable once more.
bool NotifyCenterLinux::readEventsLk(std::vector<std::string>& changed) {
  alignas(inotify_event) std::array<char, 16384> buffer;  // NOLINT: filled by read
  const ssize_t size =
      retryInterrupted([&] { return ::read(inotify_.get(), buffer.data(), buffer.size()); });
  bool isComplete = true;
  std::unordered_set<std::string> known;
  for (std::ptrdiff_t offset = 0; offset < size;) {
    inotify_event event{};
    std::memcpy(&event, buffer.data() + offset, sizeof event);
    const char* const name = buffer.data() + offset + sizeof event;
    offset += static_cast<std::ptrdiff_t>(sizeof event + event.len);
    if ((event.mask & IN_Q_OVERFLOW) != 0) isComplete = false;
    if (event.wd != watch_) continue;  // of an earlier folder
    if ((event.mask & folderIsGone) != 0) {
      ::inotify_rm_watch(inotify_.get(), watch_);  // a folder that was moved keeps it otherwise
      watch_ = -1;
    } else if (event.len > 0 && observers_.contains(name) && known.insert(name).second) {
      changed.emplace_back(name);
    }
  }
  return isComplete;
}

void NotifyCenterLinux::compareLk(const std::string& file, bool isChanged, Outcome& outcome) {
  const auto entry = observers_.find(file);
  if (entry == observers_.end()) return;
  const NotifyFolder::Look look = folder_.look(file);
  using State = NotifyFolder::State;
  if (look.state == State::refused) {
    std::string complaint =
        "Refused " + folder_.path() + '/' + file + ": " + systemErrorText(look.error);
    if (refused_.insert(file).second) outcome.complaints.push_back(std::move(complaint));
  }
  // Written and swept away since: there was a post.
  const bool isGone = look.state == State::absent && isChanged;
  if (look.state != State::posted && !isGone) return;
  for (const auto& registration : entry->second) {
    if (!isGone && registration->seen == look.generation) continue;
    registration->seen = look.generation;
    outcome.due.push_back(registration);
  }
}

void NotifyCenterLinux::compareAllLk(Outcome& outcome) {
  for (const auto& [file, registrations] : observers_) compareLk(file, false, outcome);
}

// Without the lock: neither callbacks nor log handlers may be called under it.
void NotifyCenterLinux::finish(const Outcome& outcome) {
  for (const std::string& complaint : outcome.complaints) {
    logError({"Velum/NotifyCenter", "read()"}, "{}", complaint);
  }
  for (const auto& registration : outcome.due) {
    if (!registration->isRemoved.load(std::memory_order_acquire)) registration->callback();
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
