#include "Velum/Platform/Linux/ControlGroupLinux.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdint>

namespace velum {
namespace {

constexpr std::string_view prefix = "app-";

std::string_view unitName(std::string_view group) {
  return group.substr(group.rfind('/') + 1);
}

bool removeSuffix(std::string_view& text, std::string_view suffix) {
  if (!text.ends_with(suffix)) return false;
  text.remove_suffix(suffix.size());
  return true;
}

std::string unescaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::uint8_t byte = 0;
    if (text.size() >= 4 && text.starts_with("\\x") &&
        std::from_chars(text.data() + 2, text.data() + 4, byte, 16).ptr == text.data() + 4) {
      result += static_cast<char>(byte);
      text.remove_prefix(4);
    } else {
      result += text.front();
      text.remove_prefix(1);
    }
  }
  return result;
}

// Letters are those of ASCII, whatever the locale.
bool isPlain(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == ':' || byte == '_' || byte == '.';
}

std::string escaped(std::string_view text) {
  std::string result;
  for (const char byte : text) {
    const bool isHidden = result.empty() && byte == '.';
    if (isPlain(byte) && !isHidden) {
      result += byte;
    } else {
      result += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
  }
  return result;
}

/// The identifier at the end of "app[-<launcher>]-<identifier>".
std::optional<std::string> identifierAtEnd(std::string_view name) {
  if (!name.starts_with(prefix)) return std::nullopt;
  const std::string_view identifier = name.substr(name.rfind('-') + 1);
  if (identifier.empty()) return std::nullopt;
  return unescaped(identifier);
}

}  // namespace

std::optional<std::string> applicationOfScope(std::string_view group, pid_t leader) {
  std::string_view name = unitName(group);
  if (!removeSuffix(name, fmt::format("-{}.scope", leader))) return std::nullopt;
  return identifierAtEnd(name);
}

std::optional<std::string> applicationOfService(std::string_view group) {
  std::string_view name = unitName(group);
  if (!removeSuffix(name, ".service")) return std::nullopt;
  return identifierAtEnd(name.substr(0, name.find('@')));
}

std::string applicationScopeName(std::string_view identifier, pid_t leader) {
  return fmt::format("{}{}-{}.scope", prefix, escaped(identifier), leader);
}

}  // namespace velum
