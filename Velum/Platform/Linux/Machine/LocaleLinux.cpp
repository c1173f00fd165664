#include "Velum/Platform/Linux/Machine/LocaleLinux.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "Velum/Platform/Locale.h"

namespace velum {
namespace {

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

std::string mapped(std::string_view text, char (*change)(char)) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), change);
  return result;
}

bool isLanguage(std::string_view text) {
  return (text.size() == 2 || text.size() == 3) && std::all_of(text.begin(), text.end(), isLetter);
}
bool isRegion(std::string_view text) {
  return (text.size() == 2 && std::all_of(text.begin(), text.end(), isLetter)) ||
         (text.size() == 3 && std::all_of(text.begin(), text.end(), isDigit));
}

bool isScript(std::string_view text) {
  return text.size() == 4 && std::all_of(text.begin(), text.end(), isLetter);
}

/// Takes what stands before the next separator off the text, and the separator.
std::string_view nextPart(std::string_view& text) {
  const std::string_view part = text.substr(0, text.find_first_of("_-"));
  text.remove_prefix(std::min(part.size() + 1, text.size()));
  return part;
}

/// What a modifier says of the script; others tell of currencies or sorting.
std::string_view scriptOf(std::string_view modifier) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 4> scripts{
      {{"latin", "Latn"}, {"cyrillic", "Cyrl"}, {"devanagari", "Deva"}, {"arabic", "Arab"}}};
  for (const auto& [name, script] : scripts) {
    if (name == modifier) return script;
  }
  return {};
}

std::string_view variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : std::string_view();
}

}  // namespace

std::optional<std::string> languageTag(std::string_view locale) {
  const std::size_t at = locale.find('@');
  const std::string_view modifier =
      at == std::string_view::npos ? std::string_view() : locale.substr(at + 1);
  locale = locale.substr(0, at);
  locale = locale.substr(0, locale.find('.'));
  if (locale.ends_with('_') || locale.ends_with('-')) return std::nullopt;
  // A list of languages may hold finished tags as well: "pt-BR", "zh-Hant-TW".
  const std::string_view language = nextPart(locale);
  if (!isLanguage(language)) return std::nullopt;
  std::string tag = mapped(language, lower);
  std::string script(scriptOf(modifier));
  if (isScript(locale.substr(0, locale.find_first_of("_-")))) {
    script = mapped(nextPart(locale), lower);
    script.front() = upper(script.front());
  }
  if (!script.empty()) tag.append("-").append(script);
  if (!locale.empty()) {
    if (!isRegion(locale)) return std::nullopt;
    tag.append("-").append(mapped(locale, upper));
  }
  if (modifier == "valencia") tag.append("-").append(modifier);
  return tag;
}

/// As for translated programs: LANGUAGE and then the first of LC_ALL, LC_MESSAGES and LANG that is
/// set; when that is "C" or "POSIX", LANGUAGE is ignored.
std::vector<std::string> preferredLanguages() {
  std::string_view locale;
  for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (locale.empty()) locale = variable(name);
  }
  const auto own = languageTag(locale);
  if (!own) return {};  // then translations are off, whatever LANGUAGE says

  std::vector<std::string> tags;
  const auto add = [&tags](std::optional<std::string> tag) {
    if (tag && std::find(tags.begin(), tags.end(), *tag) == tags.end()) {
      tags.push_back(*std::move(tag));
    }
  };
  for (std::string_view rest = variable("LANGUAGE"); !rest.empty();) {
    const std::string_view entry = rest.substr(0, rest.find(':'));
    rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
    add(languageTag(entry));
  }
  add(own);
  return tags;
}

/// The locale that the program has set for its messages.
std::optional<std::string> applicationLanguage() {
  const char* const locale = std::setlocale(LC_MESSAGES, nullptr);
  return locale != nullptr ? languageTag(locale) : std::nullopt;
}

}  // namespace velum
