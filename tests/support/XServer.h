#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Environment.h"
#include "tests/support/Processes.h"
#include "tests/support/SecretService.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {

/// An X server without a screen, on a display number that it finds itself. DISPLAY names it until
/// the end of the test.
class XServer {
 public:
  XServer() {
    const UniqueFd number(
        ::open((folder_ / "number").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    server_ = std::make_unique<Daemon>(
        std::vector<std::string>{"Xvfb", "-displayfd", "1", "-screen", "0", "640x480x24",
                                 "-nolisten", "tcp", "-noreset"},
        "", number.get());
    std::string text;
    EXPECT_TRUE(eventually([&] { return (text = readFile(folder_ / "number")).ends_with('\n'); }))
        << "no X server";
    variable_.emplace("DISPLAY", ':' + text.substr(0, text.find('\n')));
  }
  XServer(const XServer&) = delete;
  XServer& operator=(const XServer&) = delete;
  ~XServer() { end(); }

  /// Ends it, gently, so that it removes its socket.
  void end() {
    signal(SIGCONT);
    signal(SIGTERM);
    EXPECT_TRUE(hasEnded(server_->pid()));
  }
  void signal(int number) const { server_->signal(number); }

 private:
  TemporaryFolder folder_;
  std::unique_ptr<Daemon> server_;
  std::optional<ScopedVariable> variable_;
};

/// A program's connection to the X server with its windows, as a toolkit has one: apart from the
/// library's own.
class XClient {
  struct Freer {
    void operator()(void* memory) const noexcept { std::free(memory); }
    void operator()(xcb_connection_t* connection) const noexcept { xcb_disconnect(connection); }
  };
  template <class T>
  using Reply = std::unique_ptr<T, Freer>;

 public:
  XClient() : connection_(xcb_connect(nullptr, nullptr)) {
    EXPECT_EQ(xcb_connection_has_error(connection_.get()), 0);
    xcb_ewmh_init_atoms_replies(&ewmh_, xcb_ewmh_init_atoms(connection_.get(), &ewmh_), nullptr);
    const std::uint32_t events = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;  // what the manager is sent
    xcb_change_window_attributes(connection_.get(), root(), XCB_CW_EVENT_MASK, &events);
    sync();
  }
  XClient(const XClient&) = delete;
  XClient& operator=(const XClient&) = delete;
  ~XClient() { xcb_ewmh_connection_wipe(&ewmh_); }

  const xcb_ewmh_connection_t& atoms() const { return ewmh_; }
  xcb_window_t root() const {
    return xcb_setup_roots_iterator(xcb_get_setup(connection_.get())).data->root;
  }

  xcb_atom_t atom(std::string_view name) {
    const auto cookie =
        xcb_intern_atom(connection_.get(), 0, static_cast<std::uint16_t>(name.size()), name.data());
    const Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(connection_.get(), cookie, nullptr));
    return reply ? reply->atom : XCB_NONE;
  }

  struct Look {
    std::string title;
    pid_t pid = ::getpid();
    std::string machine = hostName();
  };

  /// A window that covers most of the screen, not yet shown.
  xcb_window_t create(const Look& look) {
    const xcb_window_t window = xcb_generate_id(connection_.get());
    xcb_create_window(connection_.get(), XCB_COPY_FROM_PARENT, window, root(), 0, 0, 600, 400, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
    windows_.push_back(window);
    setTitle(window, look.title);
    setText(window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, std::string("tests\0Tests", 12));
    setText(window, XCB_ATOM_WM_CLIENT_MACHINE, XCB_ATOM_STRING, look.machine);
    xcb_ewmh_set_wm_pid(&ewmh_, window, static_cast<std::uint32_t>(look.pid));
    sync();
    return window;
  }
  void setTitle(xcb_window_t window, std::string_view title) {
    setText(window, ewmh_._NET_WM_NAME, ewmh_.UTF8_STRING, title);
    sync();
  }
  void setUserTime(xcb_window_t window, xcb_timestamp_t time) {
    xcb_ewmh_set_wm_user_time(&ewmh_, window, time);
    sync();
  }
  void map(xcb_window_t window) {
    xcb_map_window(connection_.get(), window);
    sync();
  }
  void unmap(xcb_window_t window) {
    xcb_unmap_window(connection_.get(), window);
    sync();
  }
  void destroy(xcb_window_t window) {
    xcb_destroy_window(connection_.get(), window);
    std::erase(windows_, window);
    sync();
  }
  void destroyAll() {
    while (!windows_.empty()) destroy(windows_.back());
  }
  /// Shows it and waits until the manager has done so.
  bool show(xcb_window_t window) {
    map(window);
    return eventually([&] { return wmState(window) == normalState; });
  }
  /// Asks the manager to minimise it.
  void minimise(xcb_window_t window) {
    xcb_ewmh_send_client_message(connection_.get(), window, root(), atom("WM_CHANGE_STATE"), 1,
                                 &iconicState);
    sync();
  }
  static constexpr std::uint32_t withdrawnState = 0;
  static constexpr std::uint32_t normalState = 1;
  static constexpr std::uint32_t iconicState = 3;

  std::uint32_t wmState(xcb_window_t window) {
    const auto state = values(window, atom("WM_STATE"));
    return state.empty() ? withdrawnState : state[0];
  }
  /// How many of the two states are set that keep a window out of lists.
  int skips(xcb_window_t window) {
    int count = 0;
    for (const std::uint32_t state : values(window, ewmh_._NET_WM_STATE)) {
      if (state == ewmh_._NET_WM_STATE_SKIP_TASKBAR || state == ewmh_._NET_WM_STATE_SKIP_PAGER) {
        ++count;
      }
    }
    return count;
  }
  xcb_window_t activeWindow() {
    const auto active = values(root(), ewmh_._NET_ACTIVE_WINDOW);
    return active.empty() ? XCB_NONE : active[0];
  }
  /// The one above all others.
  xcb_window_t topWindow() {
    const auto stack = values(root(), ewmh_._NET_CLIENT_LIST_STACKING);
    return stack.empty() ? XCB_NONE : stack.back();
  }

  /// The next message of this type, about any window, to the manager; without a window when none
  /// came in time.
  xcb_client_message_event_t waitForMessage(xcb_atom_t type) {
    xcb_client_message_event_t found{};
    eventually([&] {
      const Reply<xcb_generic_event_t> event{xcb_poll_for_event(connection_.get())};
      if (!event || (event->response_type & 0x7FU) != XCB_CLIENT_MESSAGE) return false;
      const auto* message = reinterpret_cast<xcb_client_message_event_t*>(event.get());
      if (message->type == type) found = *message;
      return message->type == type;
    });
    return found;
  }

 private:
  static std::string hostName() {
    std::array<char, 256> name{};
    ::gethostname(name.data(), name.size() - 1);
    return name.data();
  }

  /// Returns when the server has done what it was asked.
  void sync() {
    const Reply<xcb_get_input_focus_reply_t> done(xcb_get_input_focus_reply(
        connection_.get(), xcb_get_input_focus(connection_.get()), nullptr));
  }
  std::vector<std::uint32_t> values(xcb_window_t window, xcb_atom_t property) {
    const auto cookie = xcb_get_property(connection_.get(), 0, window, property,
                                         XCB_GET_PROPERTY_TYPE_ANY, 0, 1024);
    const Reply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(connection_.get(), cookie, nullptr));
    if (!reply || reply->format != 32) return {};
    const auto* first = static_cast<std::uint32_t*>(xcb_get_property_value(reply.get()));
    return {first, first + reply->value_len};
  }
  void setText(xcb_window_t window, xcb_atom_t property, xcb_atom_t type, std::string_view text) {
    xcb_change_property(connection_.get(), XCB_PROP_MODE_REPLACE, window, property, type, 8,
                        static_cast<std::uint32_t>(text.size()), text.data());
  }
  Reply<xcb_connection_t> connection_;
  xcb_ewmh_connection_t ewmh_{};
  std::vector<xcb_window_t> windows_;
};

/// A window manager at the display that DISPLAY names.
class WindowManager {
 public:
  explicit WindowManager(XClient& client) {
    std::vector<std::string> environment =
        environmentWithout({"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME"});
    environment.push_back("HOME=" + home_.path());
    daemon_.emplace(std::vector<std::string>{"openbox", "--sm-disable"}, "",
                    SpawnOptions::nullDevice, environment);
    // While it is preparing, it may overlook a window; the next request is not far.
    const xcb_window_t probe = client.create({.title = "Probe", .pid = 1});
    EXPECT_TRUE(eventually([&] {
      client.map(probe);
      return client.wmState(probe) == XClient::normalState;
    })) << "the window manager shows no window";
    client.destroy(probe);
  }

 private:
  TemporaryFolder home_;
  std::optional<Daemon> daemon_;
};

}  // namespace velum::test
