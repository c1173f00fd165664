#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Velum/Platform/WindowSystem.h"

namespace velum {

/// Lets an application that normally runs in the background show windows properly: as long as a
/// registered window is open, the application is a regular one and comes to the front; when the
/// last one closes, it returns to the policy it chose. Windows that close unregister themselves.
///
/// The class-level entries act on the one shared instance. All but isDarkMode belong to the main
/// queue: called elsewhere, they stop the process. Nothing throws; on a machine without a display
/// the calls succeed, and one warning says what is missing.
class UIUtils : public std::enable_shared_from_this<UIUtils> {
 public:
  using WindowPointer = std::shared_ptr<const Window>;
  using Completion = std::function<void()>;

  /// Whether a registered window is open.
  static bool hasOpenedWindows();

  /// Whether the interface is in dark appearance. Any thread; may take a second.
  static bool isDarkMode();

  /// Sets the policy to return to when no registered window is open, and applies it at once.
  static void setActivationPolicy(ActivationPolicy policy);

  /// Registers a window that is about to be shown, makes the application regular and brings it to
  /// the front. `completion` runs later on the main queue, unless the window was removed by then.
  static void windowWillBeVisible(const WindowPointer& window, Completion completion);

  /// Unregisters a window; with the last one the application returns to its policy.
  static void removeWindow(const WindowPointer& window);

  /// An instance of its own, for tests. It must not outlive `system`.
  static std::shared_ptr<UIUtils> make(WindowSystem& system);
  static UIUtils& shared();

  // What the entries above do. They expect the main queue, and only registerWindow looks: it logs
  // an error and carries on.
  bool hasRegisteredWindows() const noexcept { return !openedWindows_.empty(); }
  void usePolicy(ActivationPolicy policy);
  void registerWindow(const WindowPointer& window, Completion completion);
  void unregisterWindow(const WindowPointer& window);

 private:
  explicit UIUtils(WindowSystem& system) : system_(system) {}

  void observeClosing();
  void willClose(const WindowPointer& window);

  WindowSystem& system_;
  ActivationPolicy activationPolicy_ = ActivationPolicy::regular;
  WindowSystem::CloseObserver closeObserver_;
  std::map<WindowId, WindowPointer> openedWindows_;
};

}  // namespace velum
