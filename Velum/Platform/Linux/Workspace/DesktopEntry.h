#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velum {

/// The command of a desktop entry file (freedesktop.org, version 1.5).
struct DesktopEntry {
  std::string program;  ///< As it is written: a path, or a name to be looked up in PATH.
  std::vector<std::string> arguments;
  std::string tryProgram;  ///< Without it the application is not installed; written like `program`.
  std::string directory;   ///< Where the program is to work; empty where the entry does not say.
  bool needsTerminal = false;

  /// Reads the text of the file `path`. Nothing when it has no valid Exec key or is hidden. Codes
  /// that stand for files and URLs expand to nothing: an application is opened without any.
  static std::optional<DesktopEntry> parse(std::string_view text, const std::string& path);
};

}  // namespace velum
