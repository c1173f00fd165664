#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace velum {

/// The value of an environment variable that holds a folder; relative or empty ones are ignored.
inline std::optional<std::string> absoluteVariable(const char* name) {
  const char* const value = std::getenv(name);
  if (value == nullptr || *value != '/') return std::nullopt;
  return value;
}

/// What HOME says, else the user database; nothing when the user has no home.
std::optional<std::string> homeFolder();

/// The user's folder of one kind: what `variable` names, else `belowHome` in the home folder.
std::optional<std::string> userFolder(const char* variable, std::string_view belowHome);

/// The folder for what lives as long as the user is logged in: what XDG_RUNTIME_DIR names, else
/// /run/user/<user id>, which a service or a scheduled job has to know by itself. Only a folder of
/// this user's own: the variable may be another user's, for example under sudo. Any thread.
std::optional<std::string> sessionFolder();
/// /run/user/<user id>, whether there is one or not. Any thread.
std::string usualSessionFolder();

/// True for a text that can be the name of one file: not empty, no slash, no NUL, not "." or "..".
inline bool isFileName(std::string_view text) {
  return !text.empty() && text != "." && text != ".." &&
         text.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

}  // namespace velum
