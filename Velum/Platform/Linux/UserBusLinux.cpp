#include "Velum/Platform/Linux/UserBusLinux.h"

#include <cerrno>
#include <string>

#include "Velum/Deadline.h"
#include "Velum/SystemError.h"

namespace velum {

void checkBus(int result, std::string_view text) {
  if (result < 0) throw SystemError(-result, std::string(text));
}

UserBus::UserBus(std::chrono::microseconds timeout) : deadline_(deadlineAfter(timeout)) {
  sd_bus* bus = nullptr;
  checkBus(sd_bus_open_user(&bus), "no user bus");
  bus_.reset(bus);
  // A bus that takes connections and answers none would hold the first call for minutes.
  waitUntil([this] { return sd_bus_is_ready(bus_.get()) > 0; });
}

BusMessage UserBus::request(const BusInterface& interface, const char* member, bool startsService) {
  sd_bus_message* message = nullptr;
  checkBus(sd_bus_message_new_method_call(bus_.get(), &message, interface.service, interface.object,
                                          interface.name, member),
           member);
  BusMessage result(message);
  checkBus(sd_bus_message_set_auto_start(message, startsService ? 1 : 0), member);
  return result;
}

BusMessage UserBus::call(const BusMessage& message) {
  sd_bus_error error{};
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call(bus_.get(), message.get(), remaining(), &error, &reply);
  const std::string text = error.message != nullptr ? error.message : "no answer";
  sd_bus_error_free(&error);
  checkBus(result, text);
  return BusMessage(reply);
}

void UserBus::process() {
  const int processed = sd_bus_process(bus_.get(), nullptr);
  checkBus(processed, "connection lost");
  if (processed == 0) checkBus(sd_bus_wait(bus_.get(), remaining()), "connection lost");
}

/// In microseconds, never 0, which would stand for the bus's own default.
std::uint64_t UserBus::remaining() const {
  const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
      deadline_ - std::chrono::steady_clock::now());
  if (left.count() <= 0) throw SystemError(ETIMEDOUT, "no answer");
  return static_cast<std::uint64_t>(left.count());
}

}  // namespace velum
