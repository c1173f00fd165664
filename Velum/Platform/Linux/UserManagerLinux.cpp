#include "Velum/Platform/Linux/UserManagerLinux.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "Velum/SystemError.h"

namespace velum {
namespace {

constexpr const char* service = "org.freedesktop.systemd1";
constexpr const char* object = "/org/freedesktop/systemd1";
constexpr const char* manager = "org.freedesktop.systemd1.Manager";

struct BusDeleter {
  void operator()(sd_bus* bus) const noexcept { sd_bus_close_unref(bus); }
};
struct MessageDeleter {
  void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

/// A conversation with the manager under one deadline. Failures are thrown as SystemError with
/// the bus's own text in place of the call.
class Conversation {
 public:
  explicit Conversation(std::chrono::microseconds timeout)
      : deadline_(std::chrono::steady_clock::now() + timeout) {
    sd_bus* bus = nullptr;
    check(sd_bus_open_user(&bus), "no user bus");
    bus_.reset(bus);
    // A bus that takes connections and answers none would hold the first call for minutes.
    waitUntil([this] { return sd_bus_is_ready(bus_.get()) > 0; });
  }

  Message request(const char* member) {
    sd_bus_message* message = nullptr;
    check(sd_bus_message_new_method_call(bus_.get(), &message, service, object, manager, member),
          member);
    Message result(message);
    check(sd_bus_message_set_auto_start(message, 0), member);
    return result;
  }

  Message call(const Message& message) {
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call(bus_.get(), message.get(), remaining(), &error, &reply);
    const std::string text = error.message != nullptr ? error.message : "no answer";
    sd_bus_error_free(&error);
    check(result, text);
    return Message(reply);
  }

  sd_bus* bus() const noexcept { return bus_.get(); }

  template <class Condition>
  void waitUntil(Condition condition) {
    while (!condition()) {
      const int processed = sd_bus_process(bus_.get(), nullptr);
      check(processed, "connection lost");
      if (processed > 0) continue;
      check(sd_bus_wait(bus_.get(), remaining()), "connection lost");
    }
  }

  static void check(int result, std::string_view text) {
    if (result < 0) throw SystemError(-result, std::string(text));
  }

 private:
  /// In microseconds, never 0, which would stand for the bus's own default.
  std::uint64_t remaining() const {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline_ - std::chrono::steady_clock::now());
    if (left.count() <= 0) throw SystemError(ETIMEDOUT, "no answer");
    return static_cast<std::uint64_t>(left.count());
  }

  std::chrono::steady_clock::time_point deadline_;
  Bus bus_;
};

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
  Conversation::check(result, "StartTransientUnit");
}

void startScopeOrThrow(const TransientScope& scope, std::chrono::microseconds timeout) {
  Conversation conversation(timeout);
  Job job;
  Conversation::check(sd_bus_match_signal(conversation.bus(), nullptr, service, object, manager,
                                          "JobRemoved", &Job::removed, &job),
                      "JobRemoved");
  conversation.call(conversation.request("Subscribe"));  // else it sends no signals
  const Message request = conversation.request("StartTransientUnit");
  appendScope(request.get(), scope);
  const Message reply = conversation.call(request);
  const char* path = nullptr;
  Conversation::check(sd_bus_message_read(reply.get(), "o", &path), "StartTransientUnit");
  job.path = path;
  conversation.waitUntil([&job] { return job.result.has_value(); });
  if (job.result != "done") throw SystemError(ECANCELED, "the job ended as " + *job.result);
}

}  // namespace

bool mayHaveUserBus() {
  if (std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr) return true;
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  return folder != nullptr && ::access((std::string(folder) + "/bus").c_str(), F_OK) == 0;
}

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
