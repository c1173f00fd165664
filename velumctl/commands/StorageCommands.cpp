#include <memory>
#include <string>

#include "Velum/PropertyList/PropertyList.h"
#include "velumctl/Commands.h"
#include "velumctl/PropertyListPrinter.h"
#include "velumctl/Secrets.h"

namespace velumctl {
namespace {

struct DumpOptions {
  std::string file;
  KeychainItem key;
  bool isAgreed = false;
  bool json = false;
};

void dump(const DumpOptions& options) {
  confirmShowing("the secrets in " + options.file, options.isAgreed);
  const velum::PropertyList content(readSealedFile(options.file, options.key));
  writeSecret((options.json ? jsonText(content) : plainText(content)) + "\n");
}

}  // namespace

void addStorage(CLI::App& app) {
  CLI::App& storage = *app.add_subcommand("storage", "Look into sealed storages");
  storage.require_subcommand(1);
  auto options = std::make_shared<DumpOptions>();
  CLI::App& command = *storage.add_subcommand("dump", "Print all that a sealed file holds");
  command.add_option("FILE", options->file, "The sealed file; it is not changed")->required();
  command.add_option("--key-item", options->key.account, "The keychain item that opens it")
      ->required()
      ->type_name("ACCOUNT");
  options->key.addOptions(command);
  command.add_flag("-y,--yes", options->isAgreed, "Show it on a terminal without asking");
  command.add_flag("--json", options->json, "Print JSON: dates as text, data as base64");
  command.footer(
      "Examples:\n"
      "  velumctl storage dump settings.sealed --key-item settings-key --service com.example.vpn");
  command.callback([options] { dump(*options); });
}

}  // namespace velumctl
