#include "Velum/UIUtils.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>

#include "Velum/Base/Fatal.h"
#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Dispatch.h"

namespace velum {
namespace {

constexpr std::string_view initName = "init()";
constexpr std::string_view hasOpenedWindowsName = "hasOpenedWindows";
constexpr std::string_view setActivationPolicyName = "setActivationPolicy(_:)";
constexpr std::string_view windowWillBeVisibleName = "windowWillBeVisible(_:completion:)";
constexpr std::string_view removeWindowName = "removeWindow(_:)";

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/UIUtils", function, where};
}

void requireMainQueue(std::string_view function) {
  if (!DispatchQueue::isMain()) fatal(fmt::format("UIUtils: {} off the main queue", function));
}

std::string policyName(ActivationPolicy policy) {
  switch (policy) {
    case ActivationPolicy::regular:
      return "regular";
    case ActivationPolicy::accessory:
      return "accessory";
    case ActivationPolicy::prohibited:
      return "prohibited";
  }
  return fmt::format("unknown({})", static_cast<std::int32_t>(policy));
}

std::string description(const Window& window) {
  const auto message = window.messageText();
  return fmt::format("{} - '{}'", window.debugDescription(), message ? *message : window.title());
}

bool isNil(const UIUtils::WindowPointer& window, std::string_view function) {
  if (window) return false;
  logError(site(function), "Nil window");
  return true;
}

}  // namespace

bool UIUtils::hasOpenedWindows() {
  requireMainQueue(hasOpenedWindowsName);
  return shared().hasRegisteredWindows();
}

bool UIUtils::isDarkMode() {
  return WindowSystem::shared().isDarkMode();
}

void UIUtils::setActivationPolicy(ActivationPolicy policy) {
  requireMainQueue(setActivationPolicyName);
  shared().usePolicy(policy);
}

void UIUtils::windowWillBeVisible(const WindowPointer& window, Completion completion) {
  requireMainQueue(windowWillBeVisibleName);
  shared().registerWindow(window, std::move(completion));
}

void UIUtils::removeWindow(const WindowPointer& window) {
  requireMainQueue(removeWindowName);
  shared().unregisterWindow(window);
}

UIUtils& UIUtils::shared() {
  static NeverDestroyed<std::shared_ptr<UIUtils>> instance(make(WindowSystem::shared()));
  return **instance;
}

std::shared_ptr<UIUtils> UIUtils::make(WindowSystem& system) {
  std::shared_ptr<UIUtils> instance(new UIUtils(system));
  instance->observeClosing();
  return instance;
}

void UIUtils::observeClosing() {
  closeObserver_ = system_.observeClosing([weak = weak_from_this()](const WindowPointer& window) {
    if (const auto self = weak.lock()) self->willClose(window);
  });
}

void UIUtils::willClose(const WindowPointer& window) {
  if (isNil(window, initName)) return;
  // The object that was registered may say more than the system's own.
  const auto opened = openedWindows_.find(window->id());
  const WindowPointer closing = opened != openedWindows_.end() ? opened->second : window;
  logDebug(site(initName), "Will close window {}", description(*closing));
  unregisterWindow(closing);
}

void UIUtils::usePolicy(ActivationPolicy policy) {
  activationPolicy_ = policy;
  system_.setActivationPolicy(policy);
  logWarning(site(setActivationPolicyName), "Set activation policy to '{}'", policyName(policy));
}

void UIUtils::registerWindow(const WindowPointer& window, Completion completion) {
  if (isNil(window, windowWillBeVisibleName)) return;
  if (!DispatchQueue::isMain()) {
    logError(site(windowWillBeVisibleName), "Must be run on main run loop");
  }
  openedWindows_.emplace(window->id(), window);
  system_.willShow(*window);
  logDebug(site(windowWillBeVisibleName), "Set activation policy to regular");
  system_.setActivationPolicy(ActivationPolicy::regular);
  system_.activateIgnoringOtherApps();
  system_.activateCurrentApplication();
  logInfo(site(windowWillBeVisibleName),
          "Window registered and app activated: {}, openedWindows count: {}", description(*window),
          openedWindows_.size());
  DispatchQueue::main().async(
      [weak = weak_from_this(), window, completion = std::move(completion)] {
        const auto self = weak.lock();
        if (!self || !self->openedWindows_.contains(window->id())) return;
        logDebug(site(windowWillBeVisibleName), "Perform completion for {}", description(*window));
        if (completion) completion();
      });
}

void UIUtils::unregisterWindow(const WindowPointer& window) {
  if (isNil(window, removeWindowName)) return;
  openedWindows_.erase(window->id());
  logInfo(site(removeWindowName), "Window removed: {}, openedWindows count: {}",
          description(*window), openedWindows_.size());
  if (!openedWindows_.empty()) return;
  if (activationPolicy_ == ActivationPolicy::regular) {
    logInfo(site(removeWindowName), "Activation policy is already regular, no need to change it");
  } else {
    system_.setActivationPolicy(activationPolicy_);
    logInfo(site(removeWindowName), "No more opened windows, activation policy set to {}",
            policyName(activationPolicy_));
  }
}

}  // namespace velum
