#include "Velum/Platform/Linux/Workspace/FileManager.h"

#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Linux/Processes/UserBus.h"

namespace velum {
namespace {

constexpr BusInterface fileManager{"org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                                   "org.freedesktop.FileManager1"};

void showItemsOrThrow(const std::vector<std::string>& paths, std::chrono::microseconds timeout) {
  constexpr const char* method = "ShowItems";
  UserBus bus(timeout);
  const BusMessage request = bus.request(fileManager, method, true);
  checkBus(sd_bus_message_open_container(request.get(), SD_BUS_TYPE_ARRAY, "s"), method);
  for (const std::string& path : paths) {
    checkBus(sd_bus_message_append(request.get(), "s", fileUri(path).c_str()), method);
  }
  checkBus(sd_bus_message_close_container(request.get()), method);
  constexpr const char* noStartupId = "";
  checkBus(sd_bus_message_append(request.get(), "s", noStartupId), method);
  bus.call(request);
}

}  // namespace

std::optional<std::string> showItems(const std::vector<std::string>& paths,
                                     std::chrono::microseconds timeout) {
  try {
    showItemsOrThrow(paths, timeout);
    return std::nullopt;
  } catch (const SystemError& error) {
    return error.what();
  }
}

std::string fileUri(std::string_view path) {
  constexpr std::string_view plain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string uri = "file://";
  for (const char c : path) {
    if (plain.find(c) != std::string_view::npos) {
      uri += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    uri += {'%', digits[byte >> 4U], digits[byte & 15U]};
  }
  return uri;
}

}  // namespace velum
