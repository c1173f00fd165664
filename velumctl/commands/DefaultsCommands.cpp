#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "Velum/Base/String.h"
#include "Velum/Platform/UserDefaults.h"
#include "Velum/PropertyList/DefaultsConversions.h"
#include "Velum/PropertyList/PropertyListText.h"
#include "Velum/SecureDefaults.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/PropertyListPrinter.h"
#include "velumctl/Secrets.h"
#include "velumctl/Terminal.h"

namespace velumctl {
namespace {

using velum::PropertyList;
using velum::UserDefaults;

std::unique_ptr<UserDefaults> domainNamed(const std::string& name) {
  auto domain = UserDefaults::domain(name);
  if (!domain) {
    throw UsageError(fmt::format("\"{}\" is not a domain; name it without a slash", name));
  }
  return domain;
}

PropertyList::Dictionary storedIn(const std::string& name) {
  auto entries = domainNamed(name)->persistentDomain();
  if (!entries) {
    throw Failure(
        fmt::format("{} can't be read; its defaults.plist is damaged or closed to you", name));
  }
  return *std::move(entries);
}

struct ReadOptions {
  std::string domain;
  std::optional<std::string> key;
  bool json = false;
};

PropertyList chosen(const ReadOptions& options) {
  PropertyList::Dictionary entries = storedIn(options.domain);
  if (!options.key) return PropertyList(std::move(entries));
  const auto entry = entries.find(*options.key);
  if (entry == entries.end()) {
    throw Failure(fmt::format("{} has no \"{}\"; leave the key out to see all", options.domain,
                              *options.key));
  }
  return std::move(entry->second);
}

void read(const ReadOptions& options) {
  const PropertyList value = chosen(options);
  writeSecret((options.json ? jsonText(value) : plainText(value)) + "\n");
}

struct WriteOptions {
  std::string domain;
  std::string key;
  std::optional<std::string> text;
  std::string type;
  bool fromInput = false;
};

// What --stdin kept off the command line has no place in an error either.
template <class Number>
PropertyList numberFrom(const std::string& text) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) {
    throw UsageError("the value is not such a number; correct it, or choose another --type");
  }
  return PropertyList(number);
}

PropertyList boolFrom(const std::string& text) {
  const bool isTrue = text == "true" || text == "YES" || text == "yes" || text == "1";
  if (!isTrue && text != "false" && text != "NO" && text != "no" && text != "0") {
    throw UsageError("the value is not a flag; write true or false");
  }
  return PropertyList(isTrue);
}

PropertyList valueFrom(std::string text, const std::string& type) {
  if (type == "bool") return boolFrom(text);
  if (type == "integer") return numberFrom<std::int64_t>(text);
  if (type == "double") return numberFrom<double>(text);
  if (type == "string") return PropertyList(std::move(text));
  if (type == "data") return PropertyList(PropertyList::Data(text.begin(), text.end()));
  if (auto list = PropertyList::read(text)) return *std::move(list);
  return velum::propertyListFromText(text);
}

void write(const WriteOptions& options) {
  constexpr std::size_t most = std::size_t{16} << 20U;
  if (options.text.has_value() == options.fromInput) {
    throw UsageError("say the value behind the key, or --stdin to read it from standard input");
  }
  std::string text = options.text.value_or("");
  if (options.fromInput) {
    text = velum::textView(readAll(STDIN_FILENO, most, "standard input"));
    // The line feed that comes with a typed or echoed value is not part of it.
    if (options.type != "data" && text.ends_with('\n')) text.pop_back();
  }
  auto value = valueFrom(std::move(text), options.type);
  if (!domainNamed(options.domain)->setObject(options.key, std::move(value))) {
    throw Failure(
        fmt::format("{} can't be written; see that its folder may be and the disk has room, that "
                    "no process keeps it locked, and that the value is not nested too deep",
                    options.domain));
  }
}

struct VerifyOptions {
  std::string domain;
  std::string storage;
  KeychainItem key;
  bool json = false;
};

void verify(const VerifyOptions& options) {
  const auto stored = storedIn(options.domain);
  auto copy = readSealedFile(options.storage, options.key);
  copy.erase(std::string(velum::SecureDefaults::pendingKey));  // of a write that is under way
  auto findings = nlohmann::ordered_json::array();
  const auto report = [&](const char* what, const std::string& key) {
    if (!options.json) {
      std::cout << what << '\t' << visibleText(velum::repairedUtf8(key), Tabs::shown) << '\n';
    }
    findings.push_back({{"key", key}, {"finding", what}});
  };
  for (const auto& [key, value] : copy) {
    const auto entry = stored.find(key);
    if (entry == stored.end()) {
      report("removed", key);
    } else if (!entry->second.isIdentical(value)) {
      report("changed", key);
    }
  }
  for (const auto& [key, value] : stored) {
    if (!copy.contains(key)) report("added", key);
  }
  if (options.json) std::cout << findings.dump() << '\n';
  if (!findings.empty()) {
    throw Failure(
        fmt::format("{} differs from its protected copy; the application puts it right "
                    "when it reads these keys",
                    options.domain));
  }
}

void addRead(CLI::App& defaults) {
  auto options = std::make_shared<ReadOptions>();
  CLI::App& command = *defaults.add_subcommand("read", "Print a domain's settings");
  command.add_option("DOMAIN", options->domain, "The application's identifier")->required();
  command.add_option("KEY", options->key, "Only this setting");
  command.add_flag("--json", options->json, "Print JSON: dates as text, data as base64");
  command.footer(
      "Examples:\n"
      "  velumctl defaults read com.example.vpn\n"
      "  velumctl defaults read com.example.vpn LastError");
  command.callback([options] { read(*options); });
}

void addWrite(CLI::App& defaults) {
  auto options = std::make_shared<WriteOptions>();
  CLI::App& command = *defaults.add_subcommand("write", "Change a setting");
  command.add_option("DOMAIN", options->domain, "The application's identifier")->required();
  command.add_option("KEY", options->key, "The setting")->required();
  command.add_option("VALUE", options->text, "Its new value; behind \"--\" when it has a dash");
  command
      .add_option("--type", options->type,
                  "How the value is meant; else a list or dictionary, (a, b) or {a = b;}, or text")
      ->type_name("TYPE")
      ->check(CLI::IsMember({"bool", "integer", "double", "string", "data", "plist"}));
  command.add_flag("--stdin", options->fromInput, "Read the value from standard input");
  command.footer(
      "An application that guards its settings takes this for a change from outside and undoes "
      "it.\n\n"
      "Examples:\n"
      "  velumctl defaults write com.example.vpn Verbose true --type bool\n"
      "  velumctl defaults write com.example.vpn Servers '(one, two)'\n"
      "  velumctl defaults write com.example.vpn Offset --type integer -- -5");
  command.callback([options] { write(*options); });
}

void addVerify(CLI::App& defaults) {
  auto options = std::make_shared<VerifyOptions>();
  CLI::App& command =
      *defaults.add_subcommand("verify", "Compare a domain with its protected copy");
  command.add_option("DOMAIN", options->domain, "The application's identifier")->required();
  command.add_option("--storage", options->storage, "The sealed file with the copy")
      ->required()
      ->type_name("FILE");
  command.add_option("--key-item", options->key.account, "The keychain item that opens it")
      ->required()
      ->type_name("ACCOUNT");
  options->key.addOptions(command);
  command.add_flag("--json", options->json, R"(Print [{"key": ..., "finding": ...}, ...])");
  command.footer(
      "Prints a line for each setting that was changed, removed or added, and fails when there is "
      "one.\nChanges nothing.\n\n"
      "Examples:\n"
      "  velumctl defaults verify com.example.vpn --storage settings.sealed \\\n"
      "    --key-item settings-key --service com.example.vpn");
  command.callback([options] { verify(*options); });
}

}  // namespace

void addDefaults(CLI::App& app) {
  CLI::App& defaults = *app.add_subcommand("defaults", "Read, change and verify settings");
  defaults.require_subcommand(1);
  addRead(defaults);
  addWrite(defaults);
  addVerify(defaults);
}

}  // namespace velumctl
