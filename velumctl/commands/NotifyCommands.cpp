#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Base/Deadline.h"
#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/IPCDarwinMessage.h"
#include "Velum/Logger/Handlers/NSLogHandler.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/NotifyCenter.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using velum::IPCDarwinMessage;
using velum::NotifyCenter;

struct NotifyOptions {
  std::vector<std::string> names;
  bool system = false;
  bool json = false;
  std::optional<double> timeout;  // seconds

  NotifyCenter::Scope scope() const {
    return system ? NotifyCenter::Scope::system : NotifyCenter::Scope::user;
  }
};

struct MessageOptions : NotifyOptions {
  std::string id;
  std::string prefix;
  bool once = false;
};

constexpr double longestTimeout = 365.0 * 24 * 3600;  // seconds

std::chrono::nanoseconds nanoseconds(double seconds) {
  return velum::bounded(std::chrono::duration<double>(seconds));
}

/// What came in on other threads, taken by the one that prints it.
class Inbox {
 public:
  void put(std::string name) {
    const std::lock_guard guard(mutex_);
    names_.push_back(std::move(name));
    filled_.notify_one();
  }
  /// Nothing when `timeout` passed first.
  std::optional<std::string> take(std::optional<double> timeout = std::nullopt) {
    std::unique_lock guard(mutex_);
    const auto isFilled = [this] { return !names_.empty(); };
    if (!timeout) {
      filled_.wait(guard, isFilled);
    } else if (!filled_.wait_for(guard, nanoseconds(*timeout), isFilled)) {
      return std::nullopt;
    }
    std::string name = std::move(names_.front());
    names_.pop_front();
    return name;
  }

 private:
  std::mutex mutex_;
  std::condition_variable filled_;
  std::deque<std::string> names_;
};

void printLine(const std::string& line) {
  Output output(STDOUT_FILENO);
  output.write(line);
  output.write('\n');
  output.flush();
}

void printJson(const nlohmann::ordered_json& object) {
  printLine(object.dump());
}

void printName(const NotifyOptions& options, const std::string& name) {
  if (options.json) {
    printJson({{"name", velum::repairedUtf8(name)}});
  } else {
    printLine(name);
  }
}

void post(const NotifyOptions& options) {
  for (const std::string& name : options.names) {
    NotifyCenter::shared(options.scope()).post(name);
    if (options.json) printName(options, name);
  }
}

/// Puts the names that are posted from now on into `inbox`, until it is destroyed.
std::vector<std::unique_ptr<NotifyCenter::Observer>> observe(const NotifyOptions& options,
                                                             const std::shared_ptr<Inbox>& inbox) {
  std::vector<std::unique_ptr<NotifyCenter::Observer>> observers;
  for (const std::string& name : options.names) {
    observers.push_back(NotifyCenter::shared(options.scope()).addObserver(name, [inbox, name] {
      inbox->put(name);
    }));
  }
  return observers;
}

void wait(const NotifyOptions& options) {
  const auto inbox = std::make_shared<Inbox>();
  const auto observers = observe(options, inbox);
  const bool isPosted = inbox->take(options.timeout).has_value();
  const std::string& name = options.names.front();
  if (options.json) printJson({{"name", velum::repairedUtf8(name)}, {"posted", isPosted}});
  if (!isPosted) {
    throw Failure(fmt::format("{} was not posted within {} s; wait longer with --timeout", name,
                              *options.timeout));
  }
}

/// Prints what comes until nobody reads it any more.
void printAll(const NotifyOptions& options, Inbox& inbox) try {
  for (;;) printName(options, *inbox.take());
} catch (const velum::SystemError& error) {
  if (error.code() != EPIPE) throw;
}

void listen(const NotifyOptions& options) {
  const auto inbox = std::make_shared<Inbox>();
  const auto observers = observe(options, inbox);
  printAll(options, *inbox);
}

void configure(const MessageOptions& options) {
  // The messages' own errors are logged, not returned.
  velum::Logger::shared().setLogLevel(velum::LogLevel::error);
  velum::Logger::shared().setHandlers({std::make_shared<velum::NSLogHandler>()});
  velum::IPCDarwinMessageConfig::install({.prefix = options.prefix, .scope = options.scope()});
}

void request(const MessageOptions& options) {
  configure(options);
  const double timeout = options.timeout.value_or(
      std::chrono::duration<double>(IPCDarwinMessage::responseTimeout).count());
  const std::string& name = options.names.front();
  const bool isAnswered = IPCDarwinMessage::sendRequest(name, options.id, nanoseconds(timeout));
  if (options.json) {
    printJson({{"name", velum::repairedUtf8(name)}, {"answered", isAnswered}});
  }
  if (!isAnswered) {
    throw Failure(
        fmt::format("no answer to {} within {} s; check that its listener runs, and the "
                    "prefix, the id and the scope",
                    name, timeout));
  }
}

void respond(const MessageOptions& options) {
  configure(options);
  const auto inbox = std::make_shared<Inbox>();
  const std::string& name = options.names.front();
  const bool isListening = IPCDarwinMessage::addListener(name, [inbox, name, id = options.id] {
    IPCDarwinMessage::sendResponse(name, id);
    inbox->put(name);
  });
  if (!isListening) {
    throw Failure(fmt::format("can't listen to {}; the line above says why", name));
  }
  if (options.once) {
    printName(options, *inbox->take());
  } else {
    printAll(options, *inbox);
  }
}

void addShared(CLI::App& command, NotifyOptions& options) {
  command.add_flag("--system", options.system, "Of all users instead of this one's processes");
  command.add_flag("--json", options.json, "Print one object per line");
}

void addTimeout(CLI::App& command, NotifyOptions& options, const char* help) {
  command.add_option("--timeout", options.timeout, help)
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, longestTimeout));
}

void addMessage(CLI::App& command, MessageOptions& options) {
  command.add_option("NAME", options.names, "The message's name")->required()->expected(1);
  command.add_option("--id", options.id, "What the two sides agreed to tell the response by")
      ->required();
  command.add_option("--prefix", options.prefix, "What all names of the product begin with")
      ->required()
      ->check([](const std::string& prefix) {
        return prefix.empty() ? std::string("must not be empty") : std::string();
      });
  addShared(command, options);
}

void addPost(CLI::App& notify) {
  const auto options = std::make_shared<NotifyOptions>();
  CLI::App& command = *notify.add_subcommand("post", "Post notifications");
  command.add_option("NAME", options->names, "The notifications' names")->required();
  addShared(command, *options);
  command.footer("Examples:\n  velumctl notify post com.example.vpn.settings-changed");
  command.callback([options] { post(*options); });
}

void addWait(CLI::App& notify) {
  const auto options = std::make_shared<NotifyOptions>();
  CLI::App& command = *notify.add_subcommand("wait", "Wait until a notification is posted");
  command.add_option("NAME", options->names, "The notification's name")->required()->expected(1);
  addTimeout(command, *options, "Give up after that long; without end where it is left out");
  addShared(command, *options);
  command.footer(
      "Fails when the time runs out. What was posted before does not count.\n\n"
      "Examples:\n  velumctl notify wait com.example.vpn.connected --timeout 30");
  command.callback([options] { wait(*options); });
}

void addListen(CLI::App& notify) {
  const auto options = std::make_shared<NotifyOptions>();
  CLI::App& command = *notify.add_subcommand("listen", "Print notifications as they are posted");
  command.add_option("NAME", options->names, "The notifications' names")->required();
  addShared(command, *options);
  command.footer(
      "Goes on until Ctrl-C. Posts that follow each other quickly may be printed as one.\n\n"
      "Examples:\n"
      "  velumctl notify listen com.example.vpn.connected com.example.vpn.disconnected\n"
      "  velumctl notify listen --system --json com.example.vpn.daemon.ready");
  command.callback([options] { listen(*options); });
}

}  // namespace

void addNotify(CLI::App& app) {
  CLI::App& notify = *app.add_subcommand("notify", "Post notifications and wait for them");
  notify.require_subcommand(1);
  addPost(notify);
  addWait(notify);
  addListen(notify);
}

void addRequest(CLI::App& app) {
  const auto options = std::make_shared<MessageOptions>();
  CLI::App& command = *app.add_subcommand("request", "Send a request and wait for its response");
  addMessage(command, *options);
  addTimeout(command, *options, "Give up after that long instead of 10 seconds");
  command.footer(
      "Fails when no response comes in time.\n\n"
      "Examples:\n"
      "  velumctl request status --id 17 --prefix com.example.vpn --timeout 2");
  command.callback([options] { request(*options); });
}

void addRespond(CLI::App& app) {
  const auto options = std::make_shared<MessageOptions>();
  CLI::App& command = *app.add_subcommand("respond", "Answer requests in an application's stead");
  addMessage(command, *options);
  command.add_flag("--once", options->once, "End after the first request");
  command.footer(
      "Prints the name of each request it answers, until Ctrl-C.\n\n"
      "Examples:\n"
      "  velumctl respond status --id 17 --prefix com.example.vpn --once");
  command.callback([options] { respond(*options); });
}

}  // namespace velumctl
