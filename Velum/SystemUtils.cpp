#include "Velum/SystemUtils.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/TemporaryFolder.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/ChildIo.h"
#include "Velum/Platform/Spawn.h"
#include "Velum/Platform/Utf8Locale.h"
#include "Velum/Process.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/SystemUtils", function, where};
}

constexpr std::string_view compressName = "compressFolder(folderUrl:ext:onlyContents:)";
constexpr std::string_view uncompressName = "uncompress(_:targetFolderUrl:)";

/// Takes a tool's output, of any size.
class OutputBuffer {
 public:
  explicit OutputBuffer(int reader) : reader_(reader) {}

  /// Reads once; see ReadOutput.
  std::size_t readSome(std::size_t limit) {
    limit = std::min(limit, std::max(bytes_.size(), smallRead));
    char* const room = bytes_.room(limit);
    const std::size_t end = bytes_.size() + limit;
    if (bytes_.size() >= large && end > provided_) {
      const std::size_t done = std::max(provided_, bytes_.size()) - bytes_.size();
      provideMemory(room + done, limit - done);
      provided_ = end;
    }
    const ssize_t size = retryInterrupted([&] { return ::read(reader_, room, limit); });
    if (size < 0) throw lastSystemError("cliUtil(path:arguments:currentDirPath:output:), read");
    bytes_.extend(static_cast<std::size_t>(size));
    return static_cast<std::size_t>(size);
  }

  ByteBuffer take() { return std::move(bytes_); }

 private:
  static constexpr std::size_t smallRead = 65'536;
  static constexpr std::size_t large = 1 << 20;  // where growing moves no bytes any more

  int reader_;
  ByteBuffer bytes_;
  std::size_t provided_ = 0;  // where the memory that is there ends
};

CliResult runTool(const std::string& path, const std::vector<std::string>& arguments,
                  const CliOptions& options) {
  PipeEnds pipe;
  SpawnOptions spawnOptions = toolOptions(path, arguments, options.currentDirPath);
  spawnOptions.environment = options.environment;
  for (const int number : {STDOUT_FILENO, STDERR_FILENO}) {
    spawnOptions.standardStreams.at(static_cast<std::size_t>(number)) = inheritedStream(number);
  }
  if (options.output) {
    pipe = makePipe();
    spawnOptions.standardStreams[STDOUT_FILENO] = pipe.writer.get();
    spawnOptions.standardStreams[STDERR_FILENO] = pipe.writer.get();
  }
  Tool tool(spawnOptions);
  pipe.writer.reset();  // else the end of the output would not show
  OutputBuffer output(pipe.reader.get());
  const auto end = Termination::ofWaitStatus(tool.wait(
      pipe.reader.get(), [&](std::size_t limit) { return output.readSome(limit); },
      options.keepRunning));
  CliResult result{end.status, end.reason == Termination::Reason::uncaughtSignal, std::nullopt};
  if (options.output) result.output = output.take();
  return result;
}

}  // namespace

CliResult SystemUtil::cliUtil(const std::string& path, const std::vector<std::string>& arguments,
                              const CliOptions& options) {
  try {
    return runTool(path, arguments, options);
  } catch (const std::exception& error) {
    logError(site("cliUtil(path:arguments:currentDirPath:output:)"), "Error occured: {}",
             error.what());
    return {launchFailed, false, std::nullopt};
  }
}

CliResult SystemUtil::cliUtil(const std::string& path, const std::vector<std::string>& arguments,
                              const std::optional<std::string>& currentDirPath, bool output) {
  return cliUtil(path, arguments, CliOptions{.currentDirPath = currentDirPath, .output = output});
}

namespace {

/// The output of a tool as it is shown in a message.
std::string_view textOf(const CliResult& result, std::string_view none) {
  return result.output && !result.output->empty() ? result.output->view() : none;
}

/// Runs an archive tool. They would take options from the environment, such as the one to delete
/// what was packed, and the way names are written from its locale.
CliResult runArchiveTool(const std::string& path, const std::vector<std::string>& arguments,
                         CliOptions options = {}) {
  const Utf8Locale locale;
  std::vector<std::string> environment = environmentWithout(
      {"ZIP", "ZIPOPT", "UNZIP", "UNZIPOPT", "ZIPINFO", "ZIPINFOOPT", "LC_ALL", "LOCPATH"});
  environment.insert(environment.end(), locale.variables().begin(), locale.variables().end());
  options.output = true;
  options.environment = std::move(environment);
  return SystemUtil::cliUtil(path, arguments, options);
}

/// A name that the zip tool doesn't take for an option.
std::string asOperand(const std::string& name) {
  return name.starts_with('-') ? "./" + name : name;
}

}  // namespace

std::optional<std::string> SystemUtil::compressFolder(const std::string& folderUrl,
                                                      std::string_view ext, bool onlyContents,
                                                      const KeepRunning& keepRunning) {
  std::error_code error;
  if (!fs::is_directory(folderUrl, error)) {
    logError(site(compressName), "Input URL \"{}\" must be a directory", folderUrl);
    return std::nullopt;
  }
  fs::path folder = fs::absolute(folderUrl, error).lexically_normal();
  if (!folder.has_filename()) folder = folder.parent_path();  // it ended with a slash
  const std::string item = folder.filename().string();
  if (item.empty() || ext.empty() ||
      ext.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
    logError(site(compressName), "Can't add \"{}\" extension to: {}", ext, item);
    return std::nullopt;
  }
  const std::string name = fmt::format("{}.{}", item, ext);
  bool isEnded = false;
  CliOptions options;
  options.currentDirPath = onlyContents ? folder.string() : folder.parent_path().string();
  if (keepRunning) {
    options.keepRunning = [&](pid_t tool) { return !(isEnded = !keepRunning(tool)); };
  }
  const CliResult result =
      runArchiveTool("/usr/bin/zip",
                     {"-r", "-X", onlyContents ? "../" + name : asOperand(name),
                      onlyContents ? "." : asOperand(item)},
                     options);
  if (isEnded) return std::nullopt;
  if (result.status != 0) {
    logError(site(compressName), "Zipping util failed with code: {}\nOutput:\n{}", result.status,
             textOf(result, ""));
    return std::nullopt;
  }
  return (folder.parent_path() / name).string();
}

namespace {

/// A path that the unzip tool takes for what it is; it searches the last folder of the path for a
/// file that matches.
std::string asPattern(const std::string& path) {
  const std::size_t nameStart = path.rfind('/') + 1;  // 0 without a slash
  if (path.find_first_of("*?[", nameStart) == std::string::npos) return path;
  std::string pattern = path.substr(0, nameStart);
  for (const char c : path.substr(nameStart)) {
    if (c == '\\') {
      pattern += R"([\\])";
    } else if (c == '*' || c == '?' || c == '[') {
      pattern += {'[', c, ']'};
    } else {
      pattern += c;
    }
  }
  return pattern;
}

/// The folder that an archive is unpacked into before anything of it is let into the target. It
/// lies inside the target, so that files only need to be renamed.
class Staging {
 public:
  explicit Staging(const std::string& target)
      : target_(target), scratch_(".unzip", target, uncompressName), folder_(scratch_.path()) {}

  const std::string& path() const { return scratch_.path(); }

  /// Whatever the archive says of its folders, they must be readable and removable here.
  void openFolders() const {
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
      if (entry.is_symlink() || !entry.is_directory()) continue;
      fs::permissions(entry.path(), fs::perms::owner_all, fs::perm_options::add);
    }
  }

  /// Throws SystemError when something of it must not get, or does not fit, into the target.
  void check() const {
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
      const fs::path name = entry.path().lexically_relative(folder_);
      if (entry.is_symlink() && leavesFolder(name, fs::read_symlink(entry.path()))) {
        throw SystemError(EPERM, fmt::format("the link {} leaves the folder", name.string()));
      }
      // Only a folder replaces a folder; a link to one is none.
      const fs::file_status existing = fs::symlink_status(target_ / name);
      const bool isFolder = fs::is_directory(entry.symlink_status());
      if (fs::exists(existing) && fs::is_directory(existing) != isFolder) {
        throw SystemError(isFolder ? ENOTDIR : EISDIR, name.string());
      }
    }
  }

  /// Moves everything into the target. Links are replaced, not followed.
  void publish() const { merge(folder_, target_); }

 private:
  /// After its first other component, ".." could lead anywhere by way of another link.
  static bool leavesFolder(const fs::path& link, const fs::path& destination) {
    const auto isUp = [](const fs::path& component) { return component == ".."; };
    const auto firstDown = std::find_if_not(destination.begin(), destination.end(), isUp);
    const fs::path end = (link.parent_path() / destination).lexically_normal();
    return destination.is_absolute() || *end.begin() == ".." ||
           std::any_of(firstDown, destination.end(), isUp);
  }

  static void merge(const fs::path& from, const fs::path& to) {
    for (const auto& entry : fs::directory_iterator(from)) {
      const fs::path place = to / entry.path().filename();
      if (!entry.is_symlink() && entry.is_directory() && fs::is_directory(place)) {
        merge(entry.path(), place);
      } else {
        fs::rename(entry.path(), place);
      }
    }
  }

  fs::path target_;
  TemporaryFolder scratch_;
  fs::path folder_;
};

}  // namespace

bool SystemUtil::uncompress(const std::string& archiveUrl, const std::string& targetFolderUrl) {
  try {
    fs::create_directories(targetFolderUrl);
    const Staging staging(targetFolderUrl);
    const CliResult result = runArchiveTool(
        "/usr/bin/unzip", {"-o", asOperand(asPattern(archiveUrl)), "-d", staging.path()});
    staging.openFolders();
    if (result.status != 0) {
      logError(site(uncompressName), "Archive uncompressing result: {}. Output: {}", result.status,
               textOf(result, "EMPTY"));
      return false;
    }
    staging.check();
    staging.publish();
  } catch (const std::exception& error) {  // of files and folders
    logError(site(uncompressName), "Can't uncompress {} into {}: {}", archiveUrl, targetFolderUrl,
             error.what());
    return false;
  }
  logInfo(site(uncompressName), "Archive uncompressed into: {}", targetFolderUrl);
  return true;
}

}  // namespace velum
