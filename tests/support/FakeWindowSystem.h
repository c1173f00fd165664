#pragma once

#include <string>
#include <vector>

#include "Velum/Platform/WindowSystem.h"

namespace velum::test {

/// A window that exists nowhere.
class FakeWindow final : public Window {
 public:
  FakeWindow(WindowId id, std::string title) : id_(id), title_(std::move(title)) {}

  WindowId id() const noexcept override { return id_; }
  std::string debugDescription() const override { return "<Window " + std::to_string(id_) + '>'; }
  std::string title() const override { return title_; }

 private:
  WindowId id_;
  std::string title_;
};

/// Writes down what is asked of it. One thread.
class FakeWindowSystem final : public WindowSystem {
 public:
  std::vector<std::string> calls;

  /// Tells the observer that is still there.
  void close(const std::shared_ptr<const Window>& window) const {
    if (const auto handler = observer_.lock()) (*handler)(window);
  }

  CloseObserver observeClosing(CloseHandler handler) override {
    const auto observer = std::make_shared<const CloseHandler>(std::move(handler));
    observer_ = observer;
    return observer;
  }
  std::shared_ptr<const Window> window(WindowId id) override {
    return std::make_shared<FakeWindow>(id, "");
  }
  void willShow(const Window& window) override {
    calls.push_back("show " + std::to_string(window.id()));
  }
  void setActivationPolicy(ActivationPolicy policy) override {
    calls.push_back("policy " + std::to_string(static_cast<int>(policy)));
  }
  void activateIgnoringOtherApps() override { calls.emplace_back("activate ignoring others"); }
  void activateCurrentApplication() override { calls.emplace_back("activate current"); }
  bool isDarkMode() override { return false; }

 private:
  std::weak_ptr<const CloseHandler> observer_;
};

}  // namespace velum::test
