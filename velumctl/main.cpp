// What support staff and developers do with the application's logs, secrets, settings and tools:
// velumctl GROUP COMMAND.

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Application.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Interruption.h"

namespace {

constexpr int usageStatus = 2;

// What may help against a failed system call; empty when nothing general does.
std::string_view advice(int code) {
  switch (code) {
    case ENOENT:
    case ENOTDIR:
      return "; check the path";
    case EACCES:
    case EPERM:
    case EROFS:
      return "; run this as a user who may do that, or choose another path";
    case ENOSPC:
    case EDQUOT:
      return "; free some space, or choose another disk";
    case EISDIR:
      return "; name a file";
    default:
      return "";
  }
}

int fail(std::string text, std::string_view hint, int status) {
  for (char& c : text) {
    if (c == '\n') c = ' ';
  }
  std::cerr << "velumctl: " << text << hint << '\n';
  return status;
}

void addCommands(CLI::App& app) {
  app.name("velumctl");
  app.require_subcommand(1);
  app.set_version_flag("--version", VELUM_VERSION);
  app.footer(
      "Examples:\n"
      "  velumctl logs show vpn.log --since 10m --level warning\n"
      "  velumctl logs save vpn.log ~/for-support --since 3d\n"
      "  velumctl support archive vpn.zip --log vpn.log\n"
      "  velumctl defaults read com.example.vpn\n\n"
      "\"velumctl GROUP COMMAND --help\" tells the rest. Exit status: 0, 1 on failure, 2 on wrong "
      "usage.");

  CLI::App& logs = *app.add_subcommand("logs", "Show, save and empty log files");
  logs.require_subcommand(1);
  velumctl::addLogsShow(logs);
  velumctl::addLogsSave(logs);
  velumctl::addLogsReset(logs);
  CLI::App& support = *app.add_subcommand("support", "Make archives for support");
  support.require_subcommand(1);
  velumctl::addSupportArchive(support);
  velumctl::addRun(app);
  velumctl::addKeychain(app);
  velumctl::addDefaults(app);
  velumctl::addStorage(app);
  velumctl::addEncryption(app);
  velumctl::addNotify(app);
  velumctl::addRequest(app);
  velumctl::addRespond(app);
  velumctl::addHttp(app);
  velumctl::addSysinfo(app);
  velumctl::addTelemetry(app);
  velumctl::addVerifyPeer(app);
  velumctl::addCerts(app);
  velumctl::addWatch(app);
}

// What was printed may be lost, on a full disk for instance: that is no success. A reader that has
// seen enough is.
int finishOutput(int status) {
  errno = 0;
  std::cout.flush();
  const int error = errno;
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  if (std::cout || status != EXIT_SUCCESS) return status;
  if (error == EPIPE || (::poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0)) {
    return status;
  }
  const std::string reason = error == 0 ? "" : ": " + velum::systemErrorText(error);
  return fail("the output could not be written completely" + reason, advice(error), EXIT_FAILURE);
}

// The command that the arguments name, as the user would type it, for pointing to its help.
std::string commandName(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app.get_name() : app.get_name() + ' ' + commandName(*chosen.front());
}

int run(int argc, char** argv) {
  velum::Logger::shared().setHandlers({});
  CLI::App app("Support tool of the VPN application.");
  try {
    addCommands(app);
    app.parse(argc, argv);
    return EXIT_SUCCESS;
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    return fail(error.what(), "; see \"" + commandName(app) + " --help\"", usageStatus);
  } catch (const velumctl::UsageError& error) {
    return fail(error.what(), "", usageStatus);
  } catch (const velum::SystemError& error) {
    std::string_view text = error.what();
    constexpr std::string_view caller = "velumctl: ";  // names this program already
    if (text.starts_with(caller)) text.remove_prefix(caller.size());
    return fail(std::string(text), advice(error.code()), EXIT_FAILURE);
  } catch (const std::exception& error) {
    return fail(error.what(), "", EXIT_FAILURE);
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  velum::prepareProcess();
  try {
    const int status = finishOutput(run(argc, argv));
    if (status != EXIT_SUCCESS && velumctl::Interruption::isAsked()) {
      velumctl::endBySignal(velumctl::Interruption::signal());
    }
    return status;
  } catch (...) {  // the report of an error failed in its turn
    static_cast<void>(std::fputs("velumctl: out of memory\n", stderr));
    return EXIT_FAILURE;
  }
}
