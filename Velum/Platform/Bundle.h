#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velum {

/// What the system knows about an application that can be opened. A value, read once.
struct Bundle {
  /// As it was given: a bundle folder with Contents/Info.plist, or in what other form the system
  /// knows applications, a desktop entry (*.desktop; identifier = its file name without the suffix)
  /// or a plain file (no identifier) for instance.
  std::string path;
  std::optional<std::string> identifier;
  /// The program to start. For a bundle folder: Contents/MacOS/ and CFBundleExecutable, or the
  /// folder's name without its suffix where the property list names none.
  std::string executable;
  /// Arguments for the program; only desktop entries have any.
  std::vector<std::string> arguments;
  /// The folder the program is to work in; desktop entries may name another one than the root.
  std::string directory{"/"};
  /// Why it can't be opened though it is an application, for people; empty when nothing is known
  /// to speak against it. A desktop entry whose program is not installed, or wants a terminal.
  std::string obstacle;

  /// Reads the bundle at `path`. Nothing when there is none: no such file, or a folder without
  /// Contents. A malformed, huge or unreadable property list counts as an empty one. Never throws
  /// for bad input, never blocks on a FIFO or device.
  static std::optional<Bundle> at(const std::string& path);

  /// The bundle whose main program is the file `executable`: the nearest enclosing folder that
  /// is a bundle, when its `executable` is that very file. Other programs inside a bundle
  /// (helpers, daemons) are not the application. What the system puts behind the name of a program
  /// that was replaced while it runs is understood.
  static std::optional<Bundle> ofExecutable(const std::string& executable);

  /// The bundle whose main program this process runs. Nothing for a program outside a bundle.
  static std::optional<Bundle> main();
};

}  // namespace velum
