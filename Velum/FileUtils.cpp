#include "Velum/FileUtils.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/FileClone.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view sourceFile = "Velum/FileUtils";

struct FoundFile {
  std::string path;
  std::optional<fs::file_time_type> modified;
};

// The entry as a result of the search, when it is one.
std::optional<FoundFile> matchingFile(const fs::directory_entry& entry, std::string_view suffix) {
  const std::string path = entry.path().lexically_normal().string();
  if (entry.path().filename().string().starts_with('.') || !path.ends_with(suffix)) return {};
  std::error_code error;
  const fs::file_status status = entry.symlink_status(error);
  if (error || fs::is_directory(status)) return {};
  const auto modified = entry.last_write_time(error);
  return FoundFile{path, error ? std::nullopt : std::optional(modified)};
}

}  // namespace

std::vector<std::string> FileUtils::findFile(std::string_view suffix, const std::string& folder,
                                             bool sorted) {
  std::error_code error;
  std::vector<FoundFile> found;
  for (auto entry = fs::directory_iterator(folder, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (auto file = matchingFile(*entry, suffix)) found.push_back(std::move(*file));
  }
  if (error) {
    logError({sourceFile, "findFile(suffix:in:sorted:)"},
             "Can't get all files with {} in directory: {} with error: {}", suffix, folder,
             error.message());
    return {};
  }
  if (sorted) {  // an absent time is less than any other
    std::ranges::stable_sort(found, std::ranges::greater(), &FoundFile::modified);
  }
  std::vector<std::string> paths;
  paths.reserve(found.size());
  for (FoundFile& file : found) paths.push_back(std::move(file.path));
  return paths;
}

namespace {

// On the disk before the original goes.
int cloneDurably(const fs::path& from, const fs::path& to) try {
  cloneFile(from, to);
  const UniqueFd file(::open(to.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  return file && retryInterrupted([&] { return ::fsync(file.get()); }) == 0 ? 0 : errno;
} catch (const SystemError& error) {
  return error.code();
}

// Without replacing a target, which link(2) refuses. Where a link is not possible (another volume,
// no hard links) a clone stands in for it, which appears with its times and as a whole or not at
// all; only there, a target that somebody makes at that very moment is replaced.
std::error_code moveWithoutReplacing(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::create_hard_link(from, to, error);
  if (error && error != std::errc::file_exists && error != std::errc::no_such_file_or_directory) {
    const bool isLink = fs::is_symlink(fs::symlink_status(from, error));
    if (fs::exists(fs::symlink_status(to, error))) {
      error.assign(EEXIST, std::generic_category());
    } else if (isLink) {  // itself, not what it leads to
      const fs::path content = fs::read_symlink(from, error);
      if (!error) fs::create_symlink(content, to, error);
    } else {
      error.assign(cloneDurably(from, to), std::generic_category());
    }
  }
  if (!error) fs::remove(from, error);
  return error;
}

}  // namespace

void FileUtils::moveFile(const std::string& name, const std::string& directory) {
  fs::path source(name);
  while (!source.has_filename() && source.has_relative_path()) source = source.parent_path();
  if (const auto error = moveWithoutReplacing(source, fs::path(directory) / source.filename())) {
    logError({sourceFile, "moveFile(name:to:)"},
             "filed to move file {} to directory: {} with error: {}", name, directory,
             error.message());
  }
}

void FileUtils::deleteFile(const std::string& path) {
  std::error_code error;
  if (fs::remove_all(path, error) == 0 && !error) {
    error = std::make_error_code(std::errc::no_such_file_or_directory);
  }
  if (error) {
    logError({sourceFile, "deleteFile(_:)"}, "Error deleting {} with error: {}", path,
             error.message());
  }
}

}  // namespace velum
