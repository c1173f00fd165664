#include "Velum/Platform/Linux/Windows/X11Connection.h"

#include <poll.h>
#include <xcb/xcbext.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Concurrency/SyncAsync.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

/// Nothing but a name with neither WAYLAND_DISPLAY nor DISPLAY says where to look.
std::string displayName() {
  const char* const display = std::getenv("DISPLAY");
  if (display != nullptr && *display != '\0') return display;
  const char* const wayland = std::getenv("WAYLAND_DISPLAY");
  const bool isWayland = wayland != nullptr && *wayland != '\0';
  throw SystemError(
      ENXIO, isWayland ? "this Wayland session has no X server (Xwayland)" : "DISPLAY is not set");
}

int errorCode(int connectionError) {
  switch (connectionError) {
    case XCB_CONN_CLOSED_PARSE_ERR:
      return EINVAL;
    case XCB_CONN_CLOSED_INVALID_SCREEN:
      return ENODEV;
    case XCB_CONN_CLOSED_MEM_INSUFFICIENT:
      return ENOMEM;
    default:
      return ECONNREFUSED;
  }
}

}  // namespace

/// Blocks as long as the server likes.
std::shared_ptr<X11Connection::Server> X11Connection::connect(const std::string& display) {
  auto server = std::make_shared<Server>();
  server->connection.reset(xcb_connect(display.c_str(), &server->screen));
  if (xcb_connection_has_error(server->connection.get()) != 0) return server;
  xcb_intern_atom_cookie_t* const cookies =
      xcb_ewmh_init_atoms(server->connection.get(), &server->ewmh);
  server->hasAtoms = xcb_ewmh_init_atoms_replies(&server->ewmh, cookies, nullptr) != 0;
  return server;
}

X11Connection::X11Connection(std::chrono::milliseconds patience) : patience_(patience) {
  const std::string display = displayName();
  const auto fail = [&](int code) {
    throw SystemError(code, "no X server at display '" + display + "'");
  };
  // On another thread, which is left behind with a server that takes connections and says nothing.
  const SyncAsync::SerialJob<std::shared_ptr<Server>> job([display] { return connect(display); });
  auto result = job.run(patience);
  if (result.timedOut()) fail(ETIMEDOUT);
  server_ = std::move(result).get();
  if (const int error = xcb_connection_has_error(raw()); error != 0) fail(errorCode(error));
  if (!server_->hasAtoms) fail(ECONNRESET);
  root_ = atoms().screens[server_->screen]->root;  // NOLINT(*-pointer-arithmetic)
  wmState_ = intern("WM_STATE");
  makeClock();
  if (isBroken()) fail(ECONNRESET);
}

void X11Connection::makeClock() {
  clock_ = xcb_generate_id(raw());
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_create_window(raw(), 0, clock_, root_, -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
                    XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
}

xcb_atom_t X11Connection::intern(std::string_view name) {
  const auto cookie =
      xcb_intern_atom(raw(), 0, static_cast<std::uint16_t>(name.size()), name.data());
  const auto answer = reply(cookie.sequence);
  if (!answer) return XCB_NONE;
  return static_cast<const xcb_intern_atom_reply_t*>(answer.get())->atom;
}

XcbEvent X11Connection::nextEvent() {
  if (stashed_.empty()) return XcbEvent(xcb_poll_for_event(raw()));
  XcbEvent event = std::move(stashed_.front());
  stashed_.pop_front();
  return event;
}

bool X11Connection::hasStashedEvents() {
  while (XcbEvent event{xcb_poll_for_queued_event(raw())}) stashed_.push_back(std::move(event));
  return !stashed_.empty();
}

void X11Connection::selectEvents(xcb_window_t window, std::uint32_t mask) {
  xcb_change_window_attributes(raw(), window, XCB_CW_EVENT_MASK, &mask);
}

bool X11Connection::waitForInput(std::chrono::steady_clock::time_point end) {
  flush();
  pollfd state{descriptor(), POLLIN, 0};
  return retryInterrupted([&] { return ::poll(&state, 1, pollTimeout(end)); }) > 0;
}

XcbPointer<void> X11Connection::reply(unsigned sequence) {
  const auto end = deadlineAfter(patience_);
  void* answer = nullptr;
  xcb_generic_error_t* error = nullptr;
  while (!isBroken() && xcb_poll_for_reply(raw(), sequence, &answer, &error) == 0) {
    isUnresponsive_ = !waitForInput(end);
    // Reads what came in; the answer may be among it.
    if (XcbEvent event{xcb_poll_for_event(raw())}) stashed_.push_back(std::move(event));
  }
  const XcbPointer<xcb_generic_error_t> windowIsGone(error);
  return XcbPointer<void>(answer);
}

std::optional<std::uint8_t> X11Connection::mapState(xcb_window_t window) {
  const auto answer = reply(xcb_get_window_attributes(raw(), window).sequence);
  if (!answer) return std::nullopt;
  return static_cast<const xcb_get_window_attributes_reply_t*>(answer.get())->map_state;
}

XcbPointer<xcb_get_property_reply_t> X11Connection::property(xcb_window_t window,
                                                             xcb_atom_t property, xcb_atom_t type) {
  constexpr std::uint32_t length = 1024;  // in units of 4 bytes
  const auto cookie = xcb_get_property(raw(), 0, window, property, type, 0, length);
  return XcbPointer<xcb_get_property_reply_t>(
      static_cast<xcb_get_property_reply_t*>(reply(cookie.sequence).release()));
}

std::vector<std::uint32_t> X11Connection::values(xcb_window_t window, xcb_atom_t property,
                                                 xcb_atom_t type) {
  const auto answer = this->property(window, property, type);
  if (!answer || answer->type != type || answer->format != 32) return {};
  std::vector<std::uint32_t> items(answer->value_len);
  if (!items.empty()) {
    std::memcpy(items.data(), xcb_get_property_value(answer.get()), items.size() * sizeof items[0]);
  }
  return items;
}

std::string X11Connection::text(xcb_window_t window, xcb_atom_t property) {
  const auto answer = this->property(window, property, XCB_GET_PROPERTY_TYPE_ANY);
  if (!answer || answer->format != 8) return {};
  return {static_cast<const char*>(xcb_get_property_value(answer.get())), answer->value_len};
}

void X11Connection::setAtoms(xcb_window_t window, xcb_atom_t property,
                             const std::vector<std::uint32_t>& atoms) {
  if (atoms.empty()) {
    xcb_delete_property(raw(), window, property);
  } else {
    xcb_change_property(raw(), XCB_PROP_MODE_REPLACE, window, property, XCB_ATOM_ATOM, 32,
                        static_cast<std::uint32_t>(atoms.size()), atoms.data());
  }
}

void X11Connection::requestTimestamp() {
  xcb_change_property(raw(), XCB_PROP_MODE_APPEND, clock_, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 0,
                      nullptr);
}

void X11Connection::changeState(xcb_window_t window, xcb_ewmh_wm_state_action_t action,
                                xcb_atom_t first, xcb_atom_t second) {
  xcb_ewmh_request_change_wm_state(&server_->ewmh, server_->screen, window, action, first, second,
                                   XCB_EWMH_CLIENT_SOURCE_TYPE_NORMAL);
}

void X11Connection::activate(xcb_window_t window, xcb_timestamp_t time) {
  xcb_ewmh_request_change_active_window(&server_->ewmh, server_->screen, window,
                                        XCB_EWMH_CLIENT_SOURCE_TYPE_NORMAL, time, XCB_NONE);
}

}  // namespace velum
