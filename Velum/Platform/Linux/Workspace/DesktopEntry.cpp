#include "Velum/Platform/Linux/Workspace/DesktopEntry.h"

#include <algorithm>
#include <iterator>
#include <map>

#include "Velum/Base/String.h"

namespace velum {
namespace {

using Keys = std::map<std::string_view, std::string_view>;

/// The keys of the main group; the first of two equal ones counts.
Keys mainGroup(std::string_view text) {
  Keys keys;
  bool isMainGroup = false;
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size());
    const auto line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.starts_with('[')) {
      isMainGroup = line == "[Desktop Entry]";
    } else if (const auto equals = line.find('=');
               isMainGroup && !line.starts_with('#') && equals != std::string_view::npos) {
      keys.try_emplace(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }
  }
  return keys;
}

/// The first level of escapes, which every text value has: \s \n \t \r and \\. Others stay, for
/// the quoting of Exec to judge.
std::string unescaped(std::string_view value) {
  constexpr std::string_view letters = "sntr\\";
  constexpr std::string_view meanings = " \n\t\r\\";
  std::string text;
  for (std::size_t at = 0; at < value.size(); ++at) {
    if (value[at] == '\\' && at + 1 < value.size()) {
      const auto escape = letters.find(value[at + 1]);
      if (escape != std::string_view::npos) {
        text += meanings[escape];
        ++at;
        continue;
      }
    }
    text += value[at];
  }
  return text;
}

/// Splits and expands the value of Exec.
class ExecLine {
 public:
  ExecLine(std::string_view line, const Keys& keys, const std::string& path)
      : rest_(line), keys_(keys), path_(path) {}

  /// Nothing for an unknown code or an open quote.
  std::optional<std::vector<std::string>> words() {
    while (!rest_.empty()) {
      if (!consume(take())) return std::nullopt;
    }
    finishWord();
    return std::move(words_);
  }

 private:
  char take() {
    const char next = rest_.front();
    rest_.remove_prefix(1);
    return next;
  }

  bool consume(char next) {
    switch (next) {
      case ' ':
      case '\t':
      case '\n':
        finishWord();
        return true;
      case '%':
        return code();
      case '"':
        isWord_ = true;
        return quoted();
      default:
        isWord_ = true;
        word_ += next;
        return true;
    }
  }

  /// The text up to the closing quote, in which a backslash takes the next character as it is.
  bool quoted() {
    while (!rest_.empty()) {
      char next = take();
      if (next == '"') return true;
      if (next == '\\' && !rest_.empty()) next = take();
      word_ += next;
    }
    return false;
  }

  bool code() {
    if (rest_.empty()) return false;
    switch (take()) {
      case '%':
        word_ += '%';
        break;
      case 'c':
        word_ += unescaped(key("Name"));
        break;
      case 'k':
        word_ += path_;
        break;
      case 'i':
        if (const auto icon = unescaped(key("Icon")); !icon.empty()) {
          words_.emplace_back("--icon");
          word_ += icon;
        }
        break;
      case 'f':
      case 'F':
      case 'u':
      case 'U':
      case 'd':  // from here on deprecated ones, to be removed
      case 'D':
      case 'n':
      case 'N':
      case 'v':
      case 'm':
        break;
      default:
        return false;
    }
    isWord_ = isWord_ || !word_.empty();  // a word of codes without meaning vanishes
    return true;
  }

  std::string_view key(std::string_view name) const {
    const auto found = keys_.find(name);
    return found == keys_.end() ? std::string_view{} : found->second;
  }

  void finishWord() {
    if (isWord_) words_.push_back(std::move(word_));
    word_.clear();
    isWord_ = false;
  }

  std::string_view rest_;
  const Keys& keys_;
  const std::string& path_;
  std::vector<std::string> words_;
  std::string word_;
  bool isWord_ = false;  // an empty quoted word is one too
};

}  // namespace

std::optional<DesktopEntry> DesktopEntry::parse(std::string_view text, const std::string& path) {
  const Keys keys = mainGroup(text);
  const auto value = [&keys](std::string_view key) {
    const auto found = keys.find(key);
    return found == keys.end() ? std::string_view{} : found->second;
  };
  if (value("Hidden") == "true") return std::nullopt;
  const std::string line = unescaped(value("Exec"));
  auto words = ExecLine(line, keys, path).words();
  if (!words || words->empty() || words->front().empty()) return std::nullopt;
  DesktopEntry entry;
  entry.program = std::move(words->front());
  entry.arguments.assign(std::make_move_iterator(words->begin() + 1),
                         std::make_move_iterator(words->end()));
  entry.tryProgram = unescaped(value("TryExec"));
  entry.directory = unescaped(value("Path"));
  entry.needsTerminal = value("Terminal") == "true";
  return entry;
}

}  // namespace velum
