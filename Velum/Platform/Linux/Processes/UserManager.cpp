#include "Velum/Platform/Linux/Processes/UserManager.h"

#include <cerrno>
#include <cstdint>

#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Linux/Processes/UserBus.h"

namespace velum {
namespace {

constexpr BusInterface manager{"org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                               "org.freedesktop.systemd1.Manager"};

/// One job of the manager. Signals are delivered by waitUntil alone, never before `path` is known.
struct Job {
  std::string path;
  std::optional<std::string> result;

  static int removed(sd_bus_message* signal, void* context, sd_bus_error* /*error*/) {
    auto& job = *static_cast<Job*>(context);
    std::uint32_t number = 0;
    const char* path = nullptr;
    const char* unit = nullptr;
    const char* result = nullptr;
    if (sd_bus_message_read(signal, "uoss", &number, &path, &unit, &result) < 0) return 0;
    if (job.path == path) job.result = result;
    return 0;
  }
};

void appendScope(sd_bus_message* message, const TransientScope& scope) {
  // Name, what to do with conflicting jobs, properties, no further units.
  const int result =
      sd_bus_message_append(message, "ssa(sv)a(sa(sv))", scope.name.c_str(), "fail", 4,  //
                            "Description", "s", scope.description.c_str(),               //
                            "Slice", "s", "app.slice",                                   //
                            "CollectMode", "s", "inactive-or-failed",                    //
                            "PIDs", "au", 1, static_cast<std::uint32_t>(scope.process), 0);
  checkBus(result, "StartTransientUnit");
}

void startScopeOrThrow(const TransientScope& scope, std::chrono::microseconds timeout) {
  UserBus bus(timeout);
  Job job;
  checkBus(sd_bus_match_signal(bus.get(), nullptr, manager.service, manager.object, manager.name,
                               "JobRemoved", &Job::removed, &job),
           "JobRemoved");
  bus.call(bus.request(manager, "Subscribe", false));  // else it sends no signals
  const BusMessage request = bus.request(manager, "StartTransientUnit", false);
  appendScope(request.get(), scope);
  const BusMessage reply = bus.call(request);
  const char* path = nullptr;
  checkBus(sd_bus_message_read(reply.get(), "o", &path), "StartTransientUnit");
  job.path = path;
  bus.waitUntil([&job] { return job.result.has_value(); });
  if (job.result != "done") throw SystemError(ECANCELED, "the job ended as " + *job.result);
}

}  // namespace

std::optional<std::string> startScope(const TransientScope& scope,
                                      std::chrono::microseconds timeout) {
  try {
    startScopeOrThrow(scope, timeout);
    return std::nullopt;
  } catch (const SystemError& error) {
    return error.what();
  }
}

}  // namespace velum
