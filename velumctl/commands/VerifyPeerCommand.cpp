#include <fmt/format.h>
#include <fmt/ostream.h>

#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Velum/Base/String.h"
#include "Velum/Platform/CodeIdentity.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"

namespace velumctl {
namespace {

struct PeerOptions {
  int pid = 0;
  std::string team;
  std::string roots;
  velum::CodeCheckOptions check;
  bool verbose = false;
  bool json = false;
};

velum::CodeVerdict verdictOn(const PeerOptions& options) {
  if (options.roots.empty()) {
    return velum::CodeIdentity::shared().check(options.pid, options.team, options.check);
  }
  return velum::CodeIdentity::trusting(options.roots)
      ->check(options.pid, options.team, options.check);
}

void verifyPeer(const PeerOptions& options) {
  const velum::CodeVerdict verdict = verdictOn(options);
  if (options.json) {
    nlohmann::ordered_json object{{"pid", options.pid},
                                  {"team", velum::repairedUtf8(options.team)},
                                  {"valid", verdict.valid},
                                  {"reason", nullptr}};
    if (!verdict.valid) object["reason"] = velum::repairedUtf8(verdict.reason);
    std::cout << object.dump() << '\n';
  } else if (verdict.valid) {
    fmt::print(std::cout, "Process {} runs a program that is signed by {}.\n", options.pid,
               options.team);
  }
  if (!verdict.valid) {
    throw Failure(
        fmt::format("process {} does not count as signed by {}{}", options.pid, options.team,
                    options.verbose ? ": " + verdict.reason : "; see the reason with --verbose"));
  }
}

}  // namespace

void addVerifyPeer(CLI::App& app) {
  const auto options = std::make_shared<PeerOptions>();
  CLI::App& command =
      *app.add_subcommand("verify-peer", "Check who signed the program of a process");
  command.add_option("PID", options->pid, "The process")
      ->required()
      ->check(CLI::Range(1, std::numeric_limits<int>::max()));
  command.add_option("--team", options->team, "The signer's team identifier")->required();
  command
      .add_option("--roots", options->roots,
                  "Folder with the authorities (*.pem) instead of the machine's")
      ->type_name("FOLDER");
  command.add_flag("--strict", options->check.strictValidity,
                   "Also look at the dates of the certificates");
  command
      .add_option("--max-size", options->check.maximumSize,
                  "The largest program that is read: 500M, 2G; 512M without")
      ->type_name("SIZE")
      ->transform(CLI::AsSizeValue(false))
      ->check([](const std::string& size) {
        return size.starts_with('-') ? "a size can't be negative" : std::string();
      });
  command.add_flag("--verbose", options->verbose, "Say why a program does not count");
  command.add_flag("--json", options->json, "Print one object for programs");
  command.footer(
      "Fails when the program is not signed by the team. Only the executable itself is looked at, "
      "not what the process has loaded beside it. The machine's authorities are the files *.pem in "
      "/etc/velum/code-signing.d; scripts/sign-code signs programs.\n\n"
      "Examples:\n"
      "  velumctl verify-peer 4711 --team R8K2ZP5WQN --verbose\n"
      "  velumctl verify-peer $(pidof vpn-daemon) --team R8K2ZP5WQN --roots ./test-roots");
  command.callback([options] { verifyPeer(*options); });
}

}  // namespace velumctl
