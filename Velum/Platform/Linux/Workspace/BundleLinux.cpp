#include "Velum/Platform/Linux/Workspace/BundleLinux.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "Velum/Files/AbsolutePath.h"
#include "Velum/Files/FileIdentity.h"
#include "Velum/Files/ReadFile.h"
#include "Velum/Platform/Bundle.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"
#include "Velum/Platform/Linux/Workspace/DesktopEntry.h"
#include "Velum/PropertyList/PropertyList.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t maximumInfoSize = std::size_t{1} << 20U;
constexpr std::string_view programFolder = "/Contents/MacOS/";
constexpr std::string_view desktopSuffix = ".desktop";

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

/// A malformed, huge, unreadable or missing property list is an empty one.
PropertyList info(const std::string& folder) {
  const auto bytes = readRegularFile(folder + "/Contents/Info.plist", maximumInfoSize);
  if (!bytes) return {};
  return PropertyList::read(*bytes).value_or(PropertyList{});
}

/// The folder's own name without its suffix, where a link leads to in the end.
std::string nameOfFolder(const std::string& folder) {
  std::error_code error;
  const fs::path real = fs::canonical(folder, error);
  return (error ? fs::path(folder) : real).stem().string();
}

Bundle folderBundle(const std::string& path) {
  const std::string folder = withoutTrailingSlashes(path);
  const PropertyList properties = info(folder);
  Bundle bundle;
  bundle.path = path;
  const auto* identifier = properties.get<std::string>("CFBundleIdentifier");
  if (identifier != nullptr && !identifier->empty()) bundle.identifier = *identifier;
  // A name with a slash would reach out of the bundle.
  const auto* program = properties.get<std::string>("CFBundleExecutable");
  const bool isUsable = program != nullptr && isFileName(*program);
  bundle.executable =
      absolutePath(folder).append(programFolder).append(isUsable ? *program : nameOfFolder(folder));
  return bundle;
}

bool isProgram(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

/// The first executable file of that name in PATH.
std::optional<std::string> programInPath(const std::string& name) {
  const char* const variable = std::getenv("PATH");
  std::string_view folders = variable != nullptr ? variable : "/usr/local/bin:/usr/bin:/bin";
  while (!folders.empty()) {
    const auto end = std::min(folders.find(':'), folders.size());
    std::string candidate = std::string(folders.substr(0, end)) + '/' + name;
    folders.remove_prefix(std::min(end + 1, folders.size()));
    if (candidate.front() == '/' && isProgram(candidate)) return candidate;
  }
  return std::nullopt;
}

/// The file that a desktop entry means. Only a plain name is looked up; a relative path would
/// depend on where the opener works.
std::optional<std::string> programFile(const std::string& program) {
  if (program.starts_with('/')) return program;
  return isFileName(program) ? programInPath(program) : std::nullopt;
}

/// Why the application of a desktop entry can't be opened; empty when nothing speaks against it.
std::string obstacleOf(const DesktopEntry& entry, const std::optional<std::string>& program) {
  if (entry.needsTerminal) return "it needs a terminal, and gets none here (Terminal=true)";
  if (!program) return fmt::format("its program {} is not installed (Exec)", entry.program);
  if (entry.tryProgram.empty()) return {};
  const std::optional<std::string> wanted = programFile(entry.tryProgram);
  if (wanted && isProgram(*wanted)) return {};
  return fmt::format("it is not installed: there is no program {} (TryExec)", entry.tryProgram);
}

std::optional<Bundle> desktopBundle(const std::string& path) {
  const auto text = readRegularFile(path, maximumInfoSize);
  if (!text) return std::nullopt;
  auto entry = DesktopEntry::parse(*text, absolutePath(path));
  if (!entry) return std::nullopt;
  const std::optional<std::string> program = programFile(entry->program);
  Bundle bundle;
  bundle.path = path;
  bundle.identifier = fs::path(path).stem().string();
  bundle.executable = program.value_or("");
  bundle.arguments = std::move(entry->arguments);
  if (entry->directory.starts_with('/')) bundle.directory = std::move(entry->directory);
  bundle.obstacle = obstacleOf(*entry, program);
  return bundle;
}

bool isSameFile(const std::string& one, const std::string& other) {
  const auto first = FileIdentity::ofPath(one);
  return first && first == FileIdentity::ofPath(other);
}

/// /proc marks a program whose file is gone; a file may also really have such a name.
std::string withoutDeletedMark(std::string path) {
  constexpr std::string_view mark = " (deleted)";
  if (path.ends_with(mark) && ::access(path.c_str(), F_OK) != 0) {
    path.resize(path.size() - mark.size());
  }
  return path;
}

}  // namespace

std::optional<Bundle> Bundle::at(const std::string& path) {
  struct stat status {};
  const std::string contents = path + "/Contents";
  if (::stat(contents.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return folderBundle(path);
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  if (path.ends_with(desktopSuffix)) return desktopBundle(path);
  Bundle bundle;
  bundle.path = path;
  bundle.executable = absolutePath(path);
  return bundle;
}

bool isInProgramFolder(std::string_view executable) noexcept {
  // The main program lies directly in its folder, so the last slash decides which bundle is the
  // nearest.
  return executable.substr(0, executable.rfind('/') + 1).ends_with(programFolder);
}

std::optional<Bundle> Bundle::ofExecutable(const std::string& executable) {
  if (!isInProgramFolder(executable)) return std::nullopt;
  const auto folder = std::string_view(executable).substr(0, executable.rfind('/') + 1);
  const std::string file = withoutDeletedMark(executable);
  auto bundle = at(std::string(folder.substr(0, folder.size() - programFolder.size())));
  if (!bundle) return std::nullopt;
  if (bundle->executable != file && !isSameFile(bundle->executable, file)) return std::nullopt;
  return bundle;
}

std::optional<Bundle> Bundle::main() {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  return error ? std::nullopt : ofExecutable(program.string());
}

}  // namespace velum
