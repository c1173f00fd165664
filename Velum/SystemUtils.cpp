#include "Velum/SystemUtils.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>

#include "Velum/FileUtils.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Posix/ChildIo.h"
#include "Velum/Platform/Posix/Spawn.h"
#include "Velum/Process.h"
#include "Velum/SystemError.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr LogSite site(std::string_view function, CallPlace where = CallPlace::current()) {
  return {"Velum/SystemUtils", function, where};
}

constexpr std::string_view compressName = "compressFolder(folderUrl:ext:onlyContents:)";
constexpr std::string_view uncompressName = "uncompress(_:targetFolderUrl:)";

/// A child that this thread waits for. One that is given up is killed, and leaves no zombie.
class Child {
 public:
  explicit Child(pid_t pid) noexcept : pid_(pid) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    reapChild(pid_);
  }

  pid_t pid() const noexcept { return pid_; }
  int wait() noexcept { return reapChild(std::exchange(pid_, -1)); }

 private:
  pid_t pid_;
};

/// Reads once, at most `limit` bytes; false at the end.
bool readSome(int reader, ByteBuffer& output, std::size_t limit) {
  char* const room = output.room(limit);
  const ssize_t size = retryInterrupted([&] { return ::read(reader, room, limit); });
  if (size < 0) throw lastSystemError("cliUtil(path:arguments:currentDirPath:output:), read");
  output.extend(static_cast<std::size_t>(size));
  return size > 0;
}

/// Waits for one of two descriptors; true when the first is readable, or at its end.
bool awaitReadable(int first, int second, std::chrono::milliseconds timeout) {
  std::array<pollfd, 2> states{{{first, POLLIN, 0}, {second, POLLIN, 0}}};
  retryInterrupted(
      [&] { return ::poll(states.data(), states.size(), static_cast<int>(timeout.count())); });
  return states[0].revents != 0;
}

/// What the child writes until its end, or until nobody can write any more.
ByteBuffer gatherOutput(int reader, const Child& child) {
  constexpr std::size_t smallRead = 65'536;
  constexpr std::size_t largeRead = 1 << 20;
  constexpr std::chrono::milliseconds noLimit(-1);
  const UniqueFd exit = exitDescriptor(child.pid());
  ByteBuffer output;
  while (!awaitReadable(exit.get(), reader, noLimit)) {
    if (!readSome(reader, output, std::clamp(output.size(), smallRead, largeRead))) return output;
  }
  // All that the child wrote is in the pipe, however long it takes to read.
  for (std::size_t end = output.size() + availableBytes(reader); output.size() < end;) {
    if (!readSome(reader, output, end - output.size())) return output;
  }
  for (const auto deadline = Clock::now() + outputGrace; Clock::now() < deadline;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    constexpr int none = -1;  // poll(2) passes over it
    if (!awaitReadable(reader, none, std::max(left, {})) || !readSome(reader, output, smallRead)) {
      break;
    }
  }
  return output;
}

CliResult runTool(const std::string& path, const std::vector<std::string>& arguments,
                  const std::optional<std::string>& currentDirPath, bool collectsOutput) {
  PipeEnds pipe;
  SpawnOptions options;
  options.executable = fs::absolute(path).native();  // the tool may start in another folder
  options.arguments = {path};
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  options.directory = currentDirPath.value_or("");
  for (std::size_t number = 0; number < options.standardStreams.size(); ++number) {
    options.standardStreams.at(number) = inheritedStream(static_cast<int>(number));
  }
  if (collectsOutput) {
    pipe = makePipe();
    options.standardStreams[STDOUT_FILENO] = pipe.writer.get();
    options.standardStreams[STDERR_FILENO] = pipe.writer.get();
  }
  Child child(spawn(options));
  CliResult result;
  if (collectsOutput) {
    pipe.writer.reset();  // else the end of the output would not show
    result.output = gatherOutput(pipe.reader.get(), child);
  }
  result.status = Termination::ofWaitStatus(child.wait()).status;
  return result;
}

}  // namespace

CliResult SystemUtil::cliUtil(const std::string& path, const std::vector<std::string>& arguments,
                              const std::optional<std::string>& currentDirPath, bool output) {
  try {
    return runTool(path, arguments, currentDirPath, output);
  } catch (const std::exception& error) {
    logError(site("cliUtil(path:arguments:currentDirPath:output:)"), "Error occured: {}",
             error.what());
    return {launchFailed, std::nullopt};
  }
}

namespace {

/// The output of a tool as it is shown in a message.
std::string_view textOf(const CliResult& result, std::string_view none) {
  return result.output && !result.output->empty() ? result.output->view() : none;
}

/// A name that the zip tool doesn't take for an option.
std::string asOperand(const std::string& name) {
  return name.starts_with('-') ? "./" + name : name;
}

}  // namespace

std::optional<std::string> SystemUtil::compressFolder(const std::string& folderUrl,
                                                      std::string_view ext, bool onlyContents) {
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
  const CliResult result =
      onlyContents ? cliUtil("/usr/bin/zip", {"-r", "-X", "../" + name, "."}, folder.string(), true)
                   : cliUtil("/usr/bin/zip", {"-r", "-X", asOperand(name), asOperand(item)},
                             folder.parent_path().string(), true);
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
      : target_(target), folder_(makeTemporaryFolder(".unzip", target, uncompressName)) {}
  Staging(const Staging&) = delete;
  Staging& operator=(const Staging&) = delete;
  ~Staging() {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }

  std::string path() const { return folder_.string(); }

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
  fs::path folder_;
};

}  // namespace

bool SystemUtil::uncompress(const std::string& archiveUrl, const std::string& targetFolderUrl) {
  try {
    fs::create_directories(targetFolderUrl);
    const Staging staging(targetFolderUrl);
    const CliResult result = cliUtil(
        "/usr/bin/unzip", {"-o", asPattern(archiveUrl), "-d", staging.path()}, std::nullopt, true);
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
