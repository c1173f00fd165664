#include "Velum/Platform/Linux/Processes/UserBus.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"

namespace velum {
namespace {

// As addresses of buses have it: what is not among these bytes is written as %HH.
std::string escaped(std::string_view path) {
  constexpr std::string_view plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_/.";
  std::string result;
  for (const char byte : path) {
    if (plain.find(byte) != std::string_view::npos) {
      result += byte;
    } else {
      result += fmt::format("%{:02x}", static_cast<unsigned char>(byte));
    }
  }
  return result;
}

}  // namespace

std::optional<std::string> userBusAddress() {
  if (const char* const named = std::getenv("DBUS_SESSION_BUS_ADDRESS");
      named != nullptr && *named != '\0') {
    const std::string_view address = named;
    return address == "disabled:" ? std::nullopt : std::optional<std::string>(address);
  }
  const auto folder = sessionFolder();
  if (!folder) return std::nullopt;
  const std::string path = *folder + "/bus";
  struct stat status {};
  const bool isOwnSocket = ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
                           status.st_uid == ::geteuid();
  if (!isOwnSocket) return std::nullopt;
  return "unix:path=" + escaped(path);
}

void checkBus(int result, std::string_view text) {
  if (result < 0) throw SystemError(-result, std::string(text));
}

UserBus::UserBus(std::chrono::microseconds timeout) : deadline_(deadlineAfter(timeout)) {
  const auto address = userBusAddress();
  if (!address) throw SystemError(ENOENT, "no user bus");
  sd_bus* bus = nullptr;
  checkBus(sd_bus_new(&bus), "no user bus");
  bus_.reset(bus);
  checkBus(sd_bus_set_address(bus, address->c_str()), "no user bus");
  checkBus(sd_bus_set_bus_client(bus, 1), "no user bus");
  checkBus(sd_bus_start(bus), "no user bus");
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
