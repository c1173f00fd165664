#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Velum/Base/ByteBuffer.h"
#include "Velum/Platform/Tool.h"

namespace velum {

/// What became of a tool.
struct CliResult {
  std::int32_t status = 0;           ///< Exit status, or the number of the signal that ended it.
  bool isSignal = false;             ///< Which of the two `status` is.
  std::optional<ByteBuffer> output;  ///< Its output and error stream, as they were written.
};

/// How a tool is run, besides what every tool is given.
struct CliOptions {
  std::optional<std::string> currentDirPath = {};  ///< Absent: this process's own.
  bool output = false;                             ///< Collect what it prints.
  /// NAME=value each; absent: this process's own.
  std::optional<std::vector<std::string>> environment = {};
  KeepRunning keepRunning = {};  ///< Absent: the tool ends by itself.
};

/// Running command-line tools to their end, and the archive tools in particular. All of it blocks
/// the caller; any thread, several at once. Failures are logged, not thrown.
class SystemUtil {
 public:
  /// The status of a tool that could not be started.
  static constexpr std::int32_t launchFailed = -1111;

  /// Runs the tool at `path`, in a session of its own and without input, and waits for its end.
  /// With `output` what it prints is collected, of any size and content, else it goes where this
  /// process's own output goes. A process that the tool leaves behind does not hold the caller,
  /// even when it keeps the output open.
  static CliResult cliUtil(const std::string& path, const std::vector<std::string>& arguments,
                           const std::optional<std::string>& currentDirPath = std::nullopt,
                           bool output = false);
  static CliResult cliUtil(const std::string& path, const std::vector<std::string>& arguments,
                           const CliOptions& options);

  /// Packs a folder with the zip tool into "<folder>.<ext>" beside it and returns that path. With
  /// `onlyContents` the archive holds what is in the folder, else the folder itself. An archive
  /// that is there already gets the files added. Symbolic links are followed. Nothing on failure,
  /// and when `keepRunning` ended it, which is not logged as an error. Variables of the environment
  /// that hold options for the tools are not heeded; names in archives are UTF-8.
  static std::optional<std::string> compressFolder(const std::string& folderUrl,
                                                   std::string_view ext, bool onlyContents,
                                                   const KeepRunning& keepRunning = {});

  /// Unpacks an archive with the unzip tool into a folder, which is created when it is not there,
  /// and replaces files of the same names. All or nothing but for failures of the disk itself: an
  /// archive that is damaged or not harmless puts nothing into the folder. Not harmless are names
  /// with ".." or from the root, symbolic links that lead out of the folder, and entries that
  /// would be written through a symbolic link that the folder already holds.
  static bool uncompress(const std::string& archiveUrl, const std::string& targetFolderUrl);
};

}  // namespace velum
