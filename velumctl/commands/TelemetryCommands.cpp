#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Velum/Telemetry.h"
#include "velumctl/Commands.h"
#include "velumctl/Errors.h"

namespace velumctl {
namespace {

using velum::RawValues;
using velum::Telemetry;

struct BodyOptions {
  std::string type;
  std::string name;
  std::string refName;
  std::string action;
  std::string label;
  std::string syntheticId;
  std::string appType;
  std::string appVersion;
  Telemetry::Props props;
};

template <class Enumeration>
std::vector<std::string> rawValuesOf() {
  const auto& texts = RawValues<Enumeration>::texts;
  return {texts.begin(), texts.end()};
}

/// An option whose value is one of an enumeration's texts.
template <class Enumeration>
void addChoice(CLI::App& command, const std::string& name, std::optional<Enumeration>& value,
               const std::string& help) {
  command
      .add_option_function<std::string>(
          name,
          [&value](const std::string& text) { value = velum::fromRawValue<Enumeration>(text); },
          help)
      ->check(CLI::IsMember(rawValuesOf<Enumeration>()));
}

void addText(CLI::App& command, const std::string& name, std::optional<std::string>& value,
             const std::string& help) {
  command.add_option_function<std::string>(
      name, [&value](const std::string& text) { value = text; }, help);
}

void addProps(CLI::App& body, Telemetry::Props& props) {
  addChoice(body, "--website-exclusions", props.websiteExclusions, "Which websites bypass the VPN");
  addChoice(body, "--app-exclusions", props.appExclusions, "Which applications bypass the VPN");
  body.add_option("--app-locale", props.appLocale, "Language of the application")
      ->capture_default_str();
  body.add_option("--system-locale", props.systemLocale, "Language of the user")
      ->capture_default_str();
  body.add_option_function<bool>(
      "--logged-in", [&props](bool value) { props.loggedIn = value; }, "true or false");
  addChoice(body, "--theme", props.theme, "Colours of the application");
  addChoice(body, "--kill-switch", props.killSwitch, "State of the kill switch");
  addChoice(body, "--stats", props.stats, "Whether statistics are sent");
  addChoice(body, "--retention-cohort", props.retentionCohort, "How long ago it was installed");
  addChoice(body, "--update-interval", props.updateInterval, "Who chose the update interval");
  addChoice(body, "--operating-mode", props.operatingMode, "How the application works");
  addText(body, "--experiment-1", props.experiment1, "Text of the first experiment");
  addText(body, "--experiment-2", props.experiment2, "Text of the second one");
  addText(body, "--experiment-3", props.experiment3, "Text of the third one");
}

void printBody(const BodyOptions& options) {
  const bool isPageview = options.type == "pageview";
  if (isPageview && !(options.action.empty() && options.label.empty())) {
    throw UsageError("a page view has neither action nor label; use --type custom");
  }
  Telemetry::Event event = Telemetry::Pageview{options.name, options.refName};
  if (!isPageview) {
    event = Telemetry::CustomEvent{options.name, options.refName, options.action, options.label};
  }
  const auto appType = velum::fromRawValue<Telemetry::AppType>(options.appType);
  const Telemetry telemetry(options.syntheticId, appType.value(), options.appVersion);
  const auto body = telemetry.eventJSONData(event, options.props);
  if (!body) throw Failure("an argument is not UTF-8, which JSON can't express");
  std::cout << *body << '\n';
}

void addBody(CLI::App& telemetry) {
  auto options = std::make_shared<BodyOptions>();
  CLI::App& body = *telemetry.add_subcommand("body", "Print the JSON of an event");
  body.add_option("--type", options->type, "Kind of the event")
      ->required()
      ->check(CLI::IsMember({"pageview", "custom"}));
  body.add_option("--name", options->name, "Name of the page or event")->required();
  body.add_option("--ref-name", options->refName, "Name of the page before it");
  body.add_option("--action", options->action, "What was done; of custom events");
  body.add_option("--label", options->label, "More of that; of custom events");
  body.add_option("--app-type", options->appType, "Which application")
      ->required()
      ->check(CLI::IsMember(rawValuesOf<Telemetry::AppType>()));
  body.add_option("--app-version", options->appVersion, "The application's version")->required();
  body.add_option("--synthetic-id", options->syntheticId, "See \"velumctl telemetry synthetic-id\"")
      ->required();
  addProps(body, options->props);
  body.footer(
      "Example:\n"
      "  velumctl telemetry body --type pageview --name settings --app-type KESTREL_DESK \\\n"
      "    --app-version 2.1 --synthetic-id \"$(velumctl telemetry synthetic-id 1f)\"");
  body.callback([options] { printBody(*options); });
}

void printSyntheticId(const std::string& text) {
  const std::string identifier = Telemetry::createSyntheticId(text);
  std::cout << identifier << '\n';
  if (identifier == Telemetry::invalidSyntheticId) {
    throw Failure("this text can't be made into an identifier of its own; choose another one");
  }
}

void addSyntheticId(CLI::App& telemetry) {
  auto text = std::make_shared<std::string>();
  CLI::App& command =
      *telemetry.add_subcommand("synthetic-id", "Print the identifier that is made of a text");
  command.add_option("TEXT", *text, "A hexadecimal number, or another text")->required();
  command.footer(
      "Exit status 1, and aaaaaaaa, for a text that no identifier can be made of.\n\n"
      "Examples:\n"
      "  velumctl telemetry synthetic-id 1f\n"
      "  velumctl telemetry synthetic-id -- -1f");
  command.callback([text] { printSyntheticId(*text); });
}

}  // namespace

void addTelemetry(CLI::App& app) {
  CLI::App& telemetry = *app.add_subcommand("telemetry", "Show what telemetry would send");
  telemetry.require_subcommand(1);
  addBody(telemetry);
  addSyntheticId(telemetry);
}

}  // namespace velumctl
