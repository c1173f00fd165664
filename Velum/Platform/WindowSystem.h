#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace velum {

/// How an application appears to its user. The number may come from elsewhere and be none of these.
enum class ActivationPolicy : std::int32_t {
  regular = 0,     ///< Listed among the running applications; its windows come to the front.
  accessory = 1,   ///< Not listed, but its windows can be used.
  prohibited = 2,  ///< Not listed, and never brought to the front.
};

/// The system's number of a window, which toolkits tell under names like winId.
using WindowId = std::uint64_t;

/// A window of this application. Two objects with one id stand for one window. The ready-made ones
/// come from WindowSystem::window; an application may derive its own, over its toolkit's windows.
/// Main queue only.
class Window {
 public:
  Window() = default;
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;
  virtual ~Window() = default;

  virtual WindowId id() const noexcept = 0;
  /// What a developer knows it by.
  virtual std::string debugDescription() const = 0;
  /// What its user reads. Must also answer when the window is gone already.
  virtual std::string title() const = 0;
  /// For an alert, its message; nothing for any other window.
  virtual std::optional<std::string> messageText() const { return std::nullopt; }
};

/// An alert: the window that shows it, and its message.
class Alert final : public Window {
 public:
  Alert(std::shared_ptr<const Window> panel, std::string messageText)
      : panel_(std::move(panel)), messageText_(std::move(messageText)) {}

  WindowId id() const noexcept override { return panel_->id(); }
  std::string debugDescription() const override { return panel_->debugDescription(); }
  std::string title() const override { return panel_->title(); }
  std::optional<std::string> messageText() const override { return messageText_; }

 private:
  std::shared_ptr<const Window> panel_;
  std::string messageText_;
};

/// The windows of this process and how the desktop treats them. Main queue only, but for
/// isDarkMode. Nothing throws: what the desktop can't do is logged once, as a warning that says
/// what is missing, and calls then do nothing.
///
/// Sees the windows of every toolkit. Waits are bounded: a desktop that does not answer for 10
/// seconds counts as missing from then on.
class WindowSystem {
 public:
  /// Gets the window that closes, or null where the system tells of something else.
  using CloseHandler = std::function<void(const std::shared_ptr<const Window>&)>;
  /// Ends the observation with its last reference.
  using CloseObserver = std::shared_ptr<const CloseHandler>;

  WindowSystem() = default;
  WindowSystem(const WindowSystem&) = delete;
  WindowSystem& operator=(const WindowSystem&) = delete;
  virtual ~WindowSystem() = default;

  static WindowSystem& shared();

  /// Calls `handler` on the main queue for each window of this process that closes, whether anybody
  /// registered it or not. Being minimised or on another desktop is not closing; being hidden by
  /// its program is, where to the system it is the same.
  [[nodiscard]] virtual CloseObserver observeClosing(CloseHandler handler) = 0;

  /// The ready-made object of a window; it knows the last title after the window is gone. The
  /// window must exist: where the toolkit buffers its requests, flush them first.
  virtual std::shared_ptr<const Window> window(WindowId id) = 0;

  /// Says that the window is about to be shown: it is the one to bring forward, as soon as it is
  /// there.
  virtual void willShow(const Window& window) = 0;

  /// Applies to all windows of this process, those that are shown later included.
  virtual void setActivationPolicy(ActivationPolicy policy) = 0;

  /// Bring this application to the front, whichever is there: as the object with the event loop,
  /// and as one of the running applications. A system may know no difference. Refused while the
  /// policy is prohibited.
  virtual void activateIgnoringOtherApps() = 0;
  virtual void activateCurrentApplication() = 0;

  /// Whether the user wants dark windows, asked anew by each call, which waits a second at most.
  /// Any thread.
  virtual bool isDarkMode() = 0;
};

}  // namespace velum
