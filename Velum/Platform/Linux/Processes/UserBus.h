#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace velum {

struct BusDeleter {
  void operator()(sd_bus* bus) const noexcept { sd_bus_close_unref(bus); }
  void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using BusMessage = std::unique_ptr<sd_bus_message, BusDeleter>;

/// An interface of an object that a service offers on a bus.
struct BusInterface {
  const char* service;
  const char* object;
  const char* name;
};

/// Throws SystemError for a negative result of the bus library, with `text` for what failed.
void checkBus(int result, std::string_view text);

/// Where the user's bus is: what DBUS_SESSION_BUS_ADDRESS says, else the socket "bus" in the
/// session's folder. Nothing when there is certainly none; it costs next to nothing to ask. Any
/// thread.
std::optional<std::string> userBusAddress();

/// A conversation on the user's bus under one deadline: each of its calls throws SystemError when
/// it has passed, and for the bus's own errors with the bus's text. One thread.
class UserBus {
 public:
  explicit UserBus(std::chrono::microseconds timeout);

  /// An empty call of a method. With `startsService` the bus may start who offers it.
  BusMessage request(const BusInterface& interface, const char* member, bool startsService);
  BusMessage call(const BusMessage& message);

  sd_bus* get() const noexcept { return bus_.get(); }

  /// Handles what comes in until `condition()` holds.
  template <class Condition>
  void waitUntil(Condition condition) {
    while (!condition()) process();
  }

 private:
  void process();
  std::uint64_t remaining() const;

  std::chrono::steady_clock::time_point deadline_;
  std::unique_ptr<sd_bus, BusDeleter> bus_;
};

}  // namespace velum
