#include "Velum/Platform/Linux/Windows/WindowSystemLinux.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <utility>

#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/Processes/PipeSignal.h"
#include "Velum/Platform/Linux/Windows/Appearance.h"
#include "Velum/Platform/Thread.h"

namespace velum {
namespace {

constexpr std::string_view consequence =
    "the activation policy has no effect and windows are not brought to the front";

constexpr std::uint32_t withdrawn = 0;  // of WM_STATE

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/WindowSystem", function, where};
}

bool isManaged(X11Connection& server, xcb_window_t window) {
  const auto state = server.values(window, server.wmState(), server.wmState());
  return !state.empty() && state[0] != withdrawn;
}

std::string hostName() {
  std::array<char, HOST_NAME_MAX + 1> name{};
  static_cast<void>(::gethostname(name.data(), name.size() - 1));
  return name.data();
}

/// Server times are milliseconds that start again from 0 after 49 days.
bool isLater(xcb_timestamp_t time, xcb_timestamp_t other) {
  return static_cast<std::int32_t>(time - other) > 0;
}

}  // namespace

/// A window of this process, as the server last showed it.
class WindowSystemLinux::Tracked final : public Window {
 public:
  explicit Tracked(WindowId id) : id_(id) {}

  WindowId id() const noexcept override { return id_; }
  /// Its number with the server, which numbers in 32 bits: no window's for an id beyond these.
  xcb_window_t window() const noexcept {
    return std::in_range<xcb_window_t>(id_) ? static_cast<xcb_window_t>(id_) : XCB_NONE;
  }
  std::string debugDescription() const override {
    return fmt::format("<X11 window {:#x} {}>", id_, program.empty() ? "without class" : program);
  }
  std::string title() const override { return titleText; }

  std::string titleText;
  std::string program;     // its class
  bool isWatched = false;  // its events come in
  bool wasManaged = false;
  bool isOpen = false;  // shown or about to be, and not yet reported as closed

 private:
  WindowId id_;
};

WindowSystem& WindowSystem::shared() {
  static NeverDestroyed<std::shared_ptr<WindowSystemLinux>> instance(WindowSystemLinux::make());
  return **instance;
}

std::shared_ptr<WindowSystemLinux> WindowSystemLinux::make(std::chrono::milliseconds patience) {
  return std::shared_ptr<WindowSystemLinux>(new WindowSystemLinux(patience));
}

WindowSystemLinux::~WindowSystemLinux() {
  if (generation_ != forkGeneration()) dropInherited();
}

// --- The connection ------------------------------------------------------------------------------

/// Does `work` where there is a server. Every use of one goes through here: it may turn out to be
/// dead, and events may have come in beside the answers.
void WindowSystemLinux::withServer(const std::function<void(Server&)>& work) {
  const PipeSignalBlock block;
  if (generation_ != forkGeneration()) dropInherited();
  if (!std::exchange(isTried_, true)) connect();
  const std::shared_ptr<Server> server = server_;
  if (!server) return;
  work(*server);
  server->flush();
  if (server != server_) return;  // lost in the middle, by a handler's own call
  if (server->isBroken()) {
    loseServer();
  } else if (server->hasStashedEvents()) {
    DispatchQueue::main().async([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->serve();
    });
  }
}

void WindowSystemLinux::connect() {
  try {
    connectOrThrow();
  } catch (const SystemError& error) {
    server_.reset();
    logWarning(site("connect()"), "No windows: {}; {}", error.what(), consequence);
  }
}

void WindowSystemLinux::connectOrThrow() {
  server_ = std::make_shared<Server>(patience_);
  source_ = DispatchSource::readable(server_->descriptor(), DispatchQueue::main(),
                                     [weak = weak_from_this()] {
                                       if (const auto self = weak.lock()) self->serve();
                                     });
  server_->selectEvents(server_->root(), XCB_EVENT_MASK_PROPERTY_CHANGE);
  scan(*server_);
}

/// In a forked child: the parent goes on with the connection, this process makes one of its own.
void WindowSystemLinux::dropInherited() {
  generation_ = forkGeneration();
  if (server_) server_->abandon();
  forgetServer();
  isTried_ = false;
}

void WindowSystemLinux::loseServer() {
  forgetServer();
  logWarning(site("serve()"), "No windows any more: the X server is gone or does not answer; {}",
             consequence);
}

void WindowSystemLinux::forgetServer() {
  source_.reset();
  server_.reset();
  windows_.clear();
  foreign_.clear();
  candidate_ = XCB_NONE;
  awaitsTime_ = false;
  activationTime_.reset();
}

void WindowSystemLinux::serve() {
  withServer([this](Server& server) {
    while (const XcbEvent event = server.nextEvent()) {
      handle(server, *event);
      if (server_.get() != &server) return;
    }
  });
}

// --- Events --------------------------------------------------------------------------------------

void WindowSystemLinux::handle(Server& server, const xcb_generic_event_t& event) {
  constexpr unsigned sentByClient = 0x80;
  switch (event.response_type & ~sentByClient) {
    case XCB_PROPERTY_NOTIFY:
      handleProperty(server, reinterpret_cast<const xcb_property_notify_event_t&>(event));
      break;
    case XCB_UNMAP_NOTIFY: {
      const auto& unmap = reinterpret_cast<const xcb_unmap_notify_event_t&>(event);
      if (const auto tracked = find(unmap.window)) handleUnmap(server, tracked);
      break;
    }
    case XCB_MAP_NOTIFY: {
      const auto& map = reinterpret_cast<const xcb_map_notify_event_t&>(event);
      if (const auto tracked = find(map.window)) tracked->isOpen = true;
      break;
    }
    case XCB_DESTROY_NOTIFY:
      handleDestroy(reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window);
      break;
    default:
      break;  // errors among them: of windows that were gone when they were asked about
  }
}

void WindowSystemLinux::handleProperty(Server& server, const xcb_property_notify_event_t& event) {
  if (event.window == server.root()) {
    if (event.atom == server.atoms()._NET_CLIENT_LIST) scan(server);
    return;
  }
  if (event.window == server.clock()) {
    if (std::exchange(awaitsTime_, false)) bringForward(server, event.time);
    return;
  }
  const auto tracked = find(event.window);
  if (!tracked) return;
  if (event.atom == server.wmState()) {
    managementChanged(server, tracked, event.state == XCB_PROPERTY_NEW_VALUE);
  } else if (event.atom == server.atoms()._NET_WM_STATE) {
    // The manager's own changes, or the user's, are respected.
    if (!isManaged(server, tracked->window())) applyPolicy(server, *tracked);
  } else if (event.atom == server.atoms()._NET_WM_NAME || event.atom == XCB_ATOM_WM_NAME) {
    readTitle(server, *tracked);
  }
}

/// Events are past: the property may have been deleted or set again since. Each change has its
/// event, so they alone are counted; the value matters to managers that write "withdrawn".
void WindowSystemLinux::managementChanged(Server& server, const TrackedPointer& tracked,
                                          bool isSet) {
  const auto state = server.values(tracked->window(), server.wmState(), server.wmState());
  const bool isNowManaged = isSet && (state.empty() || state[0] != withdrawn);
  const bool wasManaged = std::exchange(tracked->wasManaged, isNowManaged);
  applyPolicy(server, *tracked);
  if (isNowManaged && !wasManaged) open(server, *tracked);
  if (wasManaged && !isNowManaged) close(tracked);
}

/// Without a manager, unmapping is all there is. With one, the property decides: it may have
/// minimised the window. A window that changes its parent is unmapped for a moment as well.
void WindowSystemLinux::handleUnmap(Server& server, const TrackedPointer& tracked) {
  if (tracked->wasManaged) return;
  if (server.mapState(tracked->window()) == XCB_MAP_STATE_UNMAPPED) close(tracked);
}

void WindowSystemLinux::handleDestroy(WindowId id) {
  const auto tracked = find(id);
  if (!tracked) return;
  windows_.erase(id);  // the number may be used again
  close(tracked);
}

void WindowSystemLinux::open(Server& server, Tracked& tracked) {
  tracked.isOpen = true;
  if (tracked.id() == candidate_ && activationTime_) bringForward(server, *activationTime_);
}

void WindowSystemLinux::close(const TrackedPointer& tracked) {
  if (!std::exchange(tracked->isOpen, false)) return;
  if (candidate_ == tracked->id()) candidate_ = XCB_NONE;
  const auto observers = observers_;  // a handler may add some
  for (const auto& weak : observers) {
    if (const auto handler = weak.lock()) (*handler)(tracked);
  }
}

// --- The windows ---------------------------------------------------------------------------------

WindowSystemLinux::TrackedPointer WindowSystemLinux::find(WindowId id) const {
  const auto entry = windows_.find(id);
  return entry != windows_.end() ? entry->second : nullptr;
}

WindowSystemLinux::TrackedPointer WindowSystemLinux::track(Server& server, WindowId id) {
  TrackedPointer& tracked = windows_[id];
  if (!tracked) tracked = std::make_shared<Tracked>(id);
  if (!tracked->isWatched) watch(server, *tracked);
  return tracked;
}

void WindowSystemLinux::watch(Server& server, Tracked& tracked) {
  // First, so that no change is missed between the answers and the events.
  server.selectEvents(tracked.window(),
                      XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_PROPERTY_CHANGE);
  const auto mapState = server.mapState(tracked.window());
  if (!mapState) {
    logDebug(site("watch()"), "The X server does not know window {:#x} yet", tracked.id());
    return;
  }
  tracked.isWatched = true;
  tracked.wasManaged = isManaged(server, tracked.window());
  const std::string names =
      server.text(tracked.window(), XCB_ATOM_WM_CLASS);  // instance, NUL, class
  tracked.program = names.substr(0, names.find('\0'));
  readTitle(server, tracked);
  applyPolicy(server, tracked);
  if (tracked.wasManaged || *mapState != XCB_MAP_STATE_UNMAPPED) open(server, tracked);
}

void WindowSystemLinux::readTitle(Server& server, Tracked& tracked) {
  std::string title = server.text(tracked.window(), server.atoms()._NET_WM_NAME);
  if (title.empty()) title = server.text(tracked.window(), XCB_ATOM_WM_NAME);
  if (!title.empty()) tracked.titleText = std::move(title);  // a window on its way has none
}

/// Finds the windows that the toolkits of this process have shown.
void WindowSystemLinux::scan(Server& server) {
  const auto list = server.values(server.root(), server.atoms()._NET_CLIENT_LIST, XCB_ATOM_WINDOW);
  const std::set<xcb_window_t> listed(list.begin(), list.end());
  std::erase_if(foreign_, [&](xcb_window_t id) { return !listed.contains(id); });
  for (const xcb_window_t id : listed) {
    if (foreign_.contains(id)) continue;
    if (find(id) || isOurs(server, id)) {
      track(server, id);
    } else {
      foreign_.insert(id);
    }
  }
}

bool WindowSystemLinux::isOurs(Server& server, xcb_window_t window) {
  const auto pid = server.values(window, server.atoms()._NET_WM_PID, XCB_ATOM_CARDINAL);
  if (pid.empty() || pid[0] != static_cast<std::uint32_t>(currentProcessId())) return false;
  std::string machine = server.text(window, XCB_ATOM_WM_CLIENT_MACHINE);
  machine.resize(std::min(machine.find('\0'), machine.size()));  // some end it with one
  return machine == hostName();
}

std::shared_ptr<const Window> WindowSystemLinux::window(WindowId id) {
  TrackedPointer tracked;
  withServer([&](Server& server) { tracked = track(server, id); });
  return tracked ? tracked : std::make_shared<Tracked>(id);
}

WindowSystem::CloseObserver WindowSystemLinux::observeClosing(CloseHandler handler) {
  auto observer = std::make_shared<const CloseHandler>(std::move(handler));
  std::erase_if(observers_, [](const auto& weak) { return weak.expired(); });
  observers_.push_back(observer);
  withServer([](Server& /*server*/) {});  // connects
  return observer;
}

void WindowSystemLinux::willShow(const Window& window) {
  withServer([&](Server& server) {
    track(server, window.id())->isOpen = true;
    candidate_ = window.id();
  });
}

// --- What is asked of the manager ----------------------------------------------------------------

void WindowSystemLinux::setActivationPolicy(ActivationPolicy policy) {
  if (policy < ActivationPolicy::regular || policy > ActivationPolicy::prohibited) return;
  policy_ = policy;
  if (policy == ActivationPolicy::prohibited) {
    awaitsTime_ = false;
    activationTime_.reset();
  }
  withServer([&](Server& server) {
    for (const auto& [id, tracked] : windows_) applyPolicy(server, *tracked);
  });
}

void WindowSystemLinux::applyPolicy(Server& server, const Tracked& tracked) {
  if (!policy_ || !tracked.isWatched) return;
  const bool isHidden = *policy_ != ActivationPolicy::regular;
  const auto& atoms = server.atoms();
  const std::array skip{atoms._NET_WM_STATE_SKIP_TASKBAR, atoms._NET_WM_STATE_SKIP_PAGER};
  auto state = server.values(tracked.window(), atoms._NET_WM_STATE, XCB_ATOM_ATOM);
  const auto others = std::partition(state.begin(), state.end(), [&](xcb_atom_t atom) {
    return std::find(skip.begin(), skip.end(), atom) == skip.end();
  });
  if (state.end() - others == (isHidden ? 2 : 0)) return;
  if (isManaged(server, tracked.window())) {
    server.changeState(tracked.window(),
                       isHidden ? XCB_EWMH_WM_STATE_ADD : XCB_EWMH_WM_STATE_REMOVE, skip[0],
                       skip[1]);
    return;
  }
  state.erase(others, state.end());
  if (isHidden) state.insert(state.end(), skip.begin(), skip.end());
  server.setAtoms(tracked.window(), atoms._NET_WM_STATE, state);
}

/// The time tells the manager whether the user has turned to something else since; without a time
/// of its own, the application asks the server for the present one, whose answer comes as an event.
void WindowSystemLinux::activate() {
  withServer([this](Server& server) {
    if (policy_ == ActivationPolicy::prohibited) {
      logDebug(site("activate()"), "Not brought to the front: the activation policy is prohibited");
    } else if (const auto time = userTime(server)) {
      bringForward(server, *time);
    } else if (!std::exchange(awaitsTime_, true)) {
      server.requestTimestamp();
    }
  });
}

void WindowSystemLinux::bringForward(Server& server, xcb_timestamp_t time) {
  if (server.values(server.root(), server.atoms()._NET_SUPPORTING_WM_CHECK, XCB_ATOM_WINDOW)
          .empty()) {
    if (!std::exchange(isManagerMissed_, true)) {
      logWarning(site("activate()"),
                 "There is no window manager that brings windows to the front (EWMH)");
    }
    return;
  }
  activationTime_ = time;
  const TrackedPointer target = candidate_ != XCB_NONE ? find(candidate_) : topmost(server);
  if (!target || !isManaged(server, target->window())) return;  // when it is
  activationTime_.reset();
  server.activate(target->window(), time);
}

std::optional<xcb_timestamp_t> WindowSystemLinux::userTime(Server& server) const {
  std::optional<xcb_timestamp_t> latest;
  for (const auto& [id, tracked] : windows_) {
    // Toolkits may keep it on a window of its own, so that nobody else is woken by it.
    const xcb_window_t own = tracked->window();
    const auto keeper =
        server.values(own, server.atoms()._NET_WM_USER_TIME_WINDOW, XCB_ATOM_WINDOW);
    const auto time = server.values(keeper.empty() ? own : keeper[0],
                                    server.atoms()._NET_WM_USER_TIME, XCB_ATOM_CARDINAL);
    constexpr xcb_timestamp_t none = 0;
    if (time.empty() || time[0] == none) continue;
    if (!latest || isLater(time[0], *latest)) latest = time[0];
  }
  return latest;
}

WindowSystemLinux::TrackedPointer WindowSystemLinux::topmost(Server& server) const {
  const auto stack =
      server.values(server.root(), server.atoms()._NET_CLIENT_LIST_STACKING, XCB_ATOM_WINDOW);
  const auto ours = std::find_if(stack.rbegin(), stack.rend(),
                                 [this](WindowId id) { return windows_.contains(id); });
  return ours != stack.rend() ? find(*ours) : nullptr;
}

bool WindowSystemLinux::isDarkMode() {
  constexpr std::chrono::seconds patience{1};
  return prefersDark(patience);
}

}  // namespace velum
