#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

#include "Velum/Base/AtFork.h"
#include "Velum/Platform/Dispatch.h"
#include "Velum/Platform/Linux/Windows/X11Connection.h"
#include "Velum/Platform/WindowSystem.h"

namespace velum {

/// The windows of this process at the X server that DISPLAY names: those handed in, and those whose
/// _NET_WM_PID and WM_CLIENT_MACHINE say that they are. A server that does not answer, or dies,
/// counts as missing from then on. Its window manager follows ICCCM and EWMH, and those two shape
/// all of it:
///
/// - A window is managed while it has the property WM_STATE with anything but "withdrawn",
///   minimised ones too. The state of a managed window belongs to the manager, which is asked to
///   change it; that of a withdrawn one is a property to be written, which the manager reads when
///   the window is mapped and deletes when it is withdrawn again. So it is written anew after each
///   withdrawal.
/// - Withdrawing is all that others see of a window's closing: the request to close goes from the
///   manager to the program alone.
/// - A window can be activated only while it is managed; one that is about to be shown is activated
///   when it becomes so.
class WindowSystemLinux final : public WindowSystem,
                                public std::enable_shared_from_this<WindowSystemLinux> {
 public:
  /// One of its own. It connects to the server with its first use, and takes one that does not
  /// answer for `patience` for dead.
  static std::shared_ptr<WindowSystemLinux> make(
      std::chrono::milliseconds patience = std::chrono::seconds(10));

  WindowSystemLinux(const WindowSystemLinux&) = delete;
  WindowSystemLinux& operator=(const WindowSystemLinux&) = delete;
  ~WindowSystemLinux() override;

  CloseObserver observeClosing(CloseHandler handler) override;
  std::shared_ptr<const Window> window(WindowId id) override;
  void willShow(const Window& window) override;
  void setActivationPolicy(ActivationPolicy policy) override;
  void activateIgnoringOtherApps() override { activate(); }
  void activateCurrentApplication() override { activate(); }
  bool isDarkMode() override;

 private:
  class Tracked;
  using TrackedPointer = std::shared_ptr<Tracked>;
  using Server = X11Connection;

  explicit WindowSystemLinux(std::chrono::milliseconds patience) : patience_(patience) {}

  // The connection.
  void withServer(const std::function<void(Server&)>& work);
  void connect();
  void connectOrThrow();
  void dropInherited();
  void loseServer();
  void forgetServer();
  void serve();

  // Events.
  void handle(Server& server, const xcb_generic_event_t& event);
  void handleProperty(Server& server, const xcb_property_notify_event_t& event);
  void managementChanged(Server& server, const TrackedPointer& tracked, bool isSet);
  void handleUnmap(Server& server, const TrackedPointer& tracked);
  void handleDestroy(WindowId id);
  void open(Server& server, Tracked& tracked);
  void close(const TrackedPointer& tracked);

  // The windows.
  TrackedPointer find(WindowId id) const;
  TrackedPointer track(Server& server, WindowId id);
  void watch(Server& server, Tracked& tracked);
  static void readTitle(Server& server, Tracked& tracked);
  void scan(Server& server);
  static bool isOurs(Server& server, xcb_window_t window);

  // What is asked of the manager.
  void applyPolicy(Server& server, const Tracked& tracked);
  void activate();
  void bringForward(Server& server, xcb_timestamp_t time);
  std::optional<xcb_timestamp_t> userTime(Server& server) const;
  TrackedPointer topmost(Server& server) const;

  std::chrono::milliseconds patience_;
  unsigned generation_ = forkGeneration();
  bool isTried_ = false;
  std::shared_ptr<Server> server_;
  std::unique_ptr<DispatchSource> source_;
  std::vector<std::weak_ptr<const CloseHandler>> observers_;

  std::optional<ActivationPolicy> policy_;
  std::map<WindowId, TrackedPointer> windows_;
  std::set<xcb_window_t> foreign_;  // of other processes, as long as the manager lists them

  WindowId candidate_ = XCB_NONE;                  // about to be shown
  bool awaitsTime_ = false;                        // the server's, for an activation
  std::optional<xcb_timestamp_t> activationTime_;  // of one that waits for the candidate
  bool isManagerMissed_ = false;
};

}  // namespace velum
