#pragma once

#include <xcb/xcb.h>
#include <xcb/xcb_ewmh.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velum {

struct XcbDeleter {
  void operator()(void* memory) const noexcept {
    std::free(memory);  // NOLINT(*-owning-memory, *-no-malloc): what the library allocated
  }
  void operator()(xcb_connection_t* connection) const noexcept { xcb_disconnect(connection); }
};
template <class T>
using XcbPointer = std::unique_ptr<T, XcbDeleter>;
using XcbEvent = XcbPointer<xcb_generic_event_t>;

/// A connection to the X server that DISPLAY names. Unlike the library's own, none of its waits is
/// without end: a server that does not answer in time counts as dead, and with a dead one every
/// call returns at once, with nothing. What happens to a window while it is asked about is no error
/// either: a window that is gone has no properties.
///
/// A server that dies in the middle of a write raises SIGPIPE; callers hold a PipeSignalBlock. One
/// thread.
class X11Connection {
 public:
  /// Waits for the server at most `patience` each time. Throws SystemError that says why there is
  /// no connection.
  explicit X11Connection(std::chrono::milliseconds patience);

  int descriptor() const noexcept { return xcb_get_file_descriptor(raw()); }
  bool isBroken() const noexcept { return isUnresponsive_ || xcb_connection_has_error(raw()) != 0; }
  /// Gives up the connection without a word to the server: in a forked child it is the parent's.
  void abandon() noexcept { static_cast<void>(server_->connection.release()); }

  const xcb_ewmh_connection_t& atoms() const noexcept { return server_->ewmh; }
  xcb_atom_t wmState() const noexcept { return wmState_; }
  xcb_window_t root() const noexcept { return root_; }

  /// The next event that is here; nothing when there is none. Never waits.
  XcbEvent nextEvent();
  /// Keeps the events that came in while something else was waited for, and says whether there are
  /// any: then the descriptor may not become readable for them.
  bool hasStashedEvents();
  void flush() { xcb_flush(raw()); }

  void selectEvents(xcb_window_t window, std::uint32_t mask);

  /// One of XCB_MAP_STATE_*; nothing when there is no such window.
  std::optional<std::uint8_t> mapState(xcb_window_t window);
  /// The items of a property of 32-bit values; none when it is missing or of another type.
  std::vector<std::uint32_t> values(xcb_window_t window, xcb_atom_t property, xcb_atom_t type);
  /// A property's bytes, of any type, at most 4 KiB.
  std::string text(xcb_window_t window, xcb_atom_t property);
  void setAtoms(xcb_window_t window, xcb_atom_t property, const std::vector<std::uint32_t>& atoms);

  /// Makes the server tell its time: as the time of a PropertyNotify event of the window `clock()`.
  void requestTimestamp();
  xcb_window_t clock() const noexcept { return clock_; }

  /// Ask the window manager.
  void changeState(xcb_window_t window, xcb_ewmh_wm_state_action_t action, xcb_atom_t first,
                   xcb_atom_t second);
  void activate(xcb_window_t window, xcb_timestamp_t time);

 private:
  struct Server {
    Server() = default;
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server() {
      if (hasAtoms) xcb_ewmh_connection_wipe(&ewmh);  // the library's failure did so itself
    }

    XcbPointer<xcb_connection_t> connection;
    int screen = 0;
    xcb_ewmh_connection_t ewmh{};
    bool hasAtoms = false;
  };

  static std::shared_ptr<Server> connect(const std::string& display);
  xcb_connection_t* raw() const noexcept { return server_->connection.get(); }
  XcbPointer<xcb_get_property_reply_t> property(xcb_window_t window, xcb_atom_t property,
                                                xcb_atom_t type);
  XcbPointer<void> reply(unsigned sequence);
  bool waitForInput(std::chrono::steady_clock::time_point end);
  xcb_atom_t intern(std::string_view name);
  void makeClock();

  std::chrono::milliseconds patience_;
  std::shared_ptr<Server> server_;
  xcb_window_t root_ = XCB_NONE;
  xcb_atom_t wmState_ = XCB_NONE;
  xcb_window_t clock_ = XCB_NONE;
  std::deque<XcbEvent> stashed_;
  bool isUnresponsive_ = false;
};

}  // namespace velum
