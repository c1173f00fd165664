#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Velum/Base/String.h"
#include "Velum/KeyChain.h"
#include "Velum/Platform/SecretStore.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Secrets.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using velum::KeyChain;
using velum::SecretBytes;
using velum::SecretQuery;
using velum::SecretStore;

constexpr std::size_t largestSecret = std::size_t{1} << 20U;

struct ItemOptions {
  KeychainItem item;
  bool isAgreed = false;
  bool fromInput = false;
};

void get(const ItemOptions& options) {
  const SecretQuery query = options.item.query();
  confirmShowing("the secret of " + query.account, options.isAgreed);
  const auto found = SecretStore::shared().copyMatching(query);
  requireSuccess(found.status, "the secret can't be read");
  writeSecret(velum::textView(found.data));
}

SecretBytes typedSecret() {
  if (!isTerminal(STDIN_FILENO) || !isTerminal(STDERR_FILENO)) {
    throw UsageError("there is no terminal to ask on; say --stdin and pipe the secret in");
  }
  SecretBytes secret = askHidden("Secret: ");
  if (secret != askHidden("The same again: ")) {
    throw Failure("the two differ, nothing was changed; try again");
  }
  return secret;
}

void set(const ItemOptions& options) {
  const SecretQuery query = options.item.query();
  const SecretBytes secret =
      options.fromInput ? readAll(STDIN_FILENO, largestSecret, "standard input") : typedSecret();
  requireSuccess(KeyChain::save(query.account, secret, query.service, query.accessGroup),
                 "the secret can't be stored");
}

void remove(const ItemOptions& options) {
  const SecretQuery query = options.item.query();
  if (!options.isAgreed) {
    if (!isTerminal(STDIN_FILENO) || !isTerminal(STDERR_FILENO)) {
      throw UsageError("there is no terminal to ask on; say --yes to delete the secret");
    }
    if (!isConfirmed(fmt::format("Delete the secret of {} for good?", query.account))) {
      throw Failure("nothing was changed; answer y to delete the secret");
    }
  }
  requireSuccess(SecretStore::shared().remove(query), "the secret can't be deleted");
}

void list(const std::string& service, bool asJson) {
  const auto listed =
      SecretStore::shared().list(service.empty() ? std::nullopt : std::optional(service));
  requireSuccess(listed.status, "the keychain can't be read");
  auto objects = nlohmann::ordered_json::array();
  for (const SecretQuery& item : listed.items) {
    const std::string account = velum::repairedUtf8(item.account);
    const std::string name = velum::repairedUtf8(item.service);
    const std::string group = velum::repairedUtf8(item.accessGroup.value_or(""));
    nlohmann::ordered_json object{{"service", name}, {"account", account}, {"group", nullptr}};
    if (item.accessGroup) object["group"] = group;
    if (!asJson) {
      std::cout << visibleText(name, Tabs::shown) << '\t' << visibleText(account, Tabs::shown)
                << '\t' << visibleText(group, Tabs::shown) << '\n';
    }
    objects.push_back(std::move(object));
  }
  if (asJson) std::cout << objects.dump() << '\n';
}

std::shared_ptr<ItemOptions> addItem(CLI::App& command) {
  auto options = std::make_shared<ItemOptions>();
  command.add_option("ACCOUNT", options->item.account, "The item's account, its name")->required();
  options->item.addOptions(command);
  return options;
}

void addGet(CLI::App& keychain) {
  CLI::App& command = *keychain.add_subcommand("get", "Print a secret");
  const auto options = addItem(command);
  command.add_flag("-y,--yes", options->isAgreed, "Show it on a terminal without asking");
  command.footer(
      "A file or a program gets the bytes as they are; on a terminal it asks first.\n\n"
      "Examples:\n"
      "  velumctl keychain get token --service com.example.vpn | wc -c");
  command.callback([options] { get(*options); });
}

void addSet(CLI::App& keychain) {
  CLI::App& command = *keychain.add_subcommand("set", "Store a secret");
  const auto options = addItem(command);
  command.add_flag("--stdin", options->fromInput,
                   "Read it from standard input, every byte up to the end");
  command.footer(
      "Without --stdin it asks twice on the terminal, which does not show what is typed. A secret "
      "is never\npart of the command line, where others could read it.\n\n"
      "Examples:\n"
      "  velumctl keychain set token --service com.example.vpn\n"
      "  printf %s \"$token\" | velumctl keychain set token --service com.example.vpn --stdin");
  command.callback([options] { set(*options); });
}

void addDelete(CLI::App& keychain) {
  CLI::App& command = *keychain.add_subcommand("delete", "Delete a secret");
  const auto options = addItem(command);
  command.add_flag("-y,--yes", options->isAgreed, "Do not ask");
  command.footer(
      "Examples:\n"
      "  velumctl keychain delete token --service com.example.vpn");
  command.callback([options] { remove(*options); });
}

void addList(CLI::App& keychain) {
  struct ListOptions {
    std::string service;
    bool json = false;
  };
  auto options = std::make_shared<ListOptions>();
  CLI::App& command = *keychain.add_subcommand("list", "Name the items, not their secrets");
  command.add_option("--service", options->service, "Only this service's; by default everything")
      ->type_name("NAME");
  command.add_flag("--json", options->json,
                   R"(Print [{"service": ..., "account": ..., "group": ...}, ...])");
  command.footer(
      "Prints service, account and access group of each item, with tabs between them; control\n"
      "characters in them are shown as ^I or the like.\n\n"
      "Examples:\n"
      "  velumctl keychain list --service com.example.vpn");
  command.callback([options] { list(options->service, options->json); });
}

}  // namespace

void addKeychain(CLI::App& app) {
  CLI::App& keychain = *app.add_subcommand("keychain", "Read and change secrets in the keychain");
  keychain.require_subcommand(1);
  addGet(keychain);
  addSet(keychain);
  addDelete(keychain);
  addList(keychain);
}

}  // namespace velumctl
