#include <fmt/format.h>

#include <cerrno>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Velum/Base/ByteView.h"
#include "Velum/Base/String.h"
#include "Velum/CertUtils.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"
#include "velumctl/Secrets.h"

namespace velumctl {
namespace {

using velum::CertificateItem;
using velum::CertificateStatus;
using velum::CertificateStore;
using velum::CertUtils;
using velum::PropertyList;
using velum::SecCertificate;
using velum::SecPreferencesDomain;

constexpr std::size_t largestCertificateFile = std::size_t{1} << 20U;

struct CertsOptions {
  SecPreferencesDomain domain = SecPreferencesDomain::user;
  std::string root;
  std::string file;
  std::string label;
  bool json = false;

  CertificateStore& store() {
    if (root.empty()) return CertificateStore::shared();
    if (domain == SecPreferencesDomain::user) {
      throw UsageError("--root is for the machine's certificates; say --domain admin");
    }
    if (!rootStore_) rootStore_ = CertificateStore::forRoot(root);
    return *rootStore_;
  }

 private:
  std::unique_ptr<CertificateStore> rootStore_;
};

std::string_view statusAdvice(velum::SecretStatus number) {
  switch (number) {
    case velum::errSecDuplicateItem:
      return "; see \"velumctl certs list\" for its label";
    case velum::errSecItemNotFound:
      return "; see what is there with \"velumctl certs list\", and check --domain";
    case velum::errSecNotAvailable:
      return "; see that the user has a home, and that ca-certificates is installed";
    case velum::errSecErrnoBase + EACCES:
    case velum::errSecErrnoBase + EPERM:
    case velum::errSecErrnoBase + EROFS:
      return "; run this as a user who may do that";
    default:
      return "";
  }
}

void requireStatus(const CertificateStatus& status, std::string_view what) {
  if (status.isSuccess()) return;
  std::string text = status.text();
  if (text.ends_with('.')) text.pop_back();
  throw Failure(
      fmt::format("{}: {} ({}){}", what, text, status.number, statusAdvice(status.number)));
}

SecCertificate certificateIn(const std::string& path) {
  const auto content = readAll(path, largestCertificateFile);
  auto found = SecCertificate::fromFile({content.data(), content.size()});
  if (found.empty()) {
    throw Failure(path + " holds no certificate; name a file in PEM or DER");
  }
  if (found.size() > 1) {
    throw Failure(
        fmt::format("{} holds {} certificates; name a file with one", path, found.size()));
  }
  return std::move(found.front());
}

/// What is thought of a certificate in a domain; null when nothing is.
nlohmann::ordered_json settingsInDomain(const SecCertificate& certificate, CertsOptions& options) {
  const auto found = options.store().copyTrustSettings(certificate, options.domain);
  if (found.status.number == velum::errSecNoTrustSettings) return nullptr;
  requireStatus(found.status, "the settings can't be read");
  auto list = nlohmann::ordered_json::array();
  const auto* const settings = found.settings.get<PropertyList::Array>();
  for (const PropertyList& setting : *settings) {
    const auto* const use = setting.get<std::string>(velum::trustSettingsPolicyKey);
    const auto* const result = setting.get<std::int64_t>(velum::trustSettingsResultKey);
    nlohmann::ordered_json entry{{"use", nullptr}, {"result", nullptr}};
    if (use != nullptr) entry["use"] = *use;
    if (result != nullptr) entry["result"] = *result;
    list.push_back(std::move(entry));
  }
  return list;
}

/// "always", "nothing set", or for example "sslServer: root, SMIME: denied".
std::string inWords(const nlohmann::ordered_json& settings) {
  static const std::map<std::int64_t, std::string_view> words{
      {velum::trustResultTrustRoot, "root"},
      {velum::trustResultTrustAsRoot, "itself"},
      {velum::trustResultDeny, "denied"}};
  if (settings.is_null()) return "nothing set";
  if (settings.empty()) return "always";
  std::vector<std::string> parts;
  for (const auto& setting : settings) {
    const auto word =
        setting["result"].is_null() ? words.end() : words.find(setting["result"].get<int>());
    parts.push_back(
        fmt::format("{}: {}", setting["use"].is_null() ? "all" : setting["use"].get<std::string>(),
                    word == words.end() ? "other" : word->second));
  }
  return fmt::format("{}", fmt::join(parts, ", "));
}

void addCertificate(CertsOptions& options) {
  requireStatus(CertUtils::addCertificate(certificateIn(options.file), options.label,
                                          options.domain, options.store()),
                "the certificate can't be added");
}

void removeCertificates(CertsOptions& options) {
  requireStatus(CertUtils::removeCertificate(options.label, options.domain, options.store()),
                "the certificates can't be removed");
}

void trustCertificate(CertsOptions& options) {
  requireStatus(
      CertUtils::setTrustSettings(certificateIn(options.file), options.domain, options.store()),
      "the certificate can't be trusted");
}

void listCertificates(CertsOptions& options) {
  auto objects = nlohmann::ordered_json::array();
  for (const auto& keychain : options.store().searchList(options.domain).keychains) {
    const auto found = options.store().list(keychain);
    requireStatus(found.status, "the certificates can't be listed");
    for (const CertificateItem& item : found.items) {
      const std::string label = velum::repairedUtf8(item.label);
      const std::string& subject = item.certificate.description();
      const std::string fingerprint = item.certificate.fingerprint();
      auto settings = settingsInDomain(item.certificate, options);
      if (!options.json) {
        std::cout << label << '\t' << subject << '\t' << inWords(settings) << '\t' << fingerprint
                  << '\n';
      }
      objects.push_back({{"label", label},
                         {"subject", subject},
                         {"sha256", fingerprint},
                         {"settings", std::move(settings)}});
    }
  }
  if (options.json) std::cout << objects.dump() << '\n';
}

void checkCertificate(CertsOptions& options) {
  const SecCertificate certificate = certificateIn(options.file);
  auto settings = settingsInDomain(certificate, options);
  const bool isTrusted = !settings.is_null() && CertUtils::isCertificateTrusted(
                                                    certificate, options.domain, options.store());
  if (options.json) {
    std::cout << nlohmann::ordered_json{{"trusted", isTrusted}, {"settings", settings}}.dump()
              << '\n';
  } else {
    std::cout << inWords(settings) << '\n';
  }
  if (!isTrusted) {
    throw Failure(options.file + " is not trusted as a root; \"velumctl certs trust\" makes it so");
  }
}

/// A command with the options that all of them have.
CLI::App& addCertsCommand(CLI::App& certs, const std::string& name, const std::string& help,
                          const std::shared_ptr<CertsOptions>& options,
                          void (*run)(CertsOptions&)) {
  static const std::map<std::string, SecPreferencesDomain> domains{
      {"user", SecPreferencesDomain::user},
      {"admin", SecPreferencesDomain::common},
      {"system", SecPreferencesDomain::system}};
  CLI::App& command = *certs.add_subcommand(name, help);
  command
      .add_option("--domain", options->domain, "Whose certificates: user (default), admin, system")
      ->type_name("DOMAIN")
      ->transform(CLI::CheckedTransformer(domains).description(""));
  command
      .add_option("--root", options->root, "Of the system in this folder, an image for instance")
      ->type_name("FOLDER");
  command.callback([options, run] { run(*options); });
  return command;
}

std::shared_ptr<CertsOptions> newCertsOptions() {
  return std::make_shared<CertsOptions>();
}

void addCertificateFile(CLI::App& command, CertsOptions& options) {
  command.add_option("FILE", options.file, "One certificate, PEM or DER; - for standard input")
      ->required();
}

}  // namespace

void addCerts(CLI::App& app) {
  CLI::App& certs = *app.add_subcommand("certs", "Install certificates and trust them");
  certs.require_subcommand(1);
  certs.footer(
      "The user's certificates are those of the browsers (~/.pki/nssdb); settings say what each is "
      "trusted for.\nDomains admin and system are the machine's "
      "(/usr/local/share/ca-certificates): "
      "what is there is trusted.");

  auto options = newCertsOptions();
  CLI::App& adding = addCertsCommand(certs, "add", "Add a certificate", options, addCertificate);
  addCertificateFile(adding, *options);
  adding.add_option("--name", options->label, "The name to remove it by; several may share one")
      ->type_name("LABEL")
      ->required();
  adding.footer(
      "A user's certificate has to be trusted as well.\n\n"
      "Examples:\n"
      "  velumctl certs add corp.pem --name \"Corp CA\" && velumctl certs trust corp.pem\n"
      "  sudo velumctl certs add corp.pem --name \"Corp CA\" --domain admin");

  options = newCertsOptions();
  CLI::App& removing = addCertsCommand(certs, "remove", "Remove all certificates of a label",
                                       options, removeCertificates);
  removing.add_option("LABEL", options->label, "The name they were added under")->required();
  removing.footer("Examples:\n  velumctl certs remove \"Corp CA\"");

  options = newCertsOptions();
  CLI::App& listing =
      addCertsCommand(certs, "list", "List the certificates", options, listCertificates);
  listing.add_flag(
      "--json", options->json,
      R"(Print [{"label": ..., "subject": ..., "sha256": ..., "settings": ...}, ...])");
  listing.footer(
      "Prints label, subject, settings and fingerprint of each, with tabs between them.\n\n"
      "Examples:\n  velumctl certs list --domain admin");

  options = newCertsOptions();
  CLI::App& trusting =
      addCertsCommand(certs, "trust", "Always trust a certificate", options, trustCertificate);
  addCertificateFile(trusting, *options);
  trusting.footer(
      "The certificate has to be there. An authority is trusted with all it issued, any other "
      "certificate by itself.\n\n"
      "Examples:\n  velumctl certs trust corp.pem");

  options = newCertsOptions();
  CLI::App& checking = addCertsCommand(certs, "check", "Tell whether a certificate is trusted",
                                       options, checkCertificate);
  addCertificateFile(checking, *options);
  checking.add_flag("--json", options->json, R"(Print {"trusted": ..., "settings": ...})");
  checking.footer(
      "Fails unless it is trusted as a root for each use that settings name.\n\n"
      "Examples:\n  velumctl certs check corp.pem --domain system");
}

}  // namespace velumctl
