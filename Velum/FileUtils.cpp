#include "Velum/FileUtils.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <random>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
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
int cloneDurably(const fs::path& from, const fs::path& to) {
  if (const int error = cloneFile(from, to)) return error;
  const UniqueFd file(::open(to.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  return file && retryInterrupted([&] { return ::fsync(file.get()); }) == 0 ? 0 : errno;
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

void clonefile(const std::string& source, const std::string& destination,
               const Progress* progress) {
  if (const int error = cloneFile(source, destination, progress)) {
    throw SystemError(error,
                      fmt::format("clonefile(_:to:), copyfile ({}, {})", source, destination));
  }
}

namespace {

// mkdtemp(3) of some systems insists on six placeholders; this name has five.
bool makeUniqueFolder(std::string& path, std::string_view placeholder, mode_t mode) {
  constexpr std::string_view alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  std::uniform_int_distribution<std::size_t> index(0, alphabet.size() - 1);
  for (int attempt = 0; attempt < 1000; ++attempt) {
    std::generate(path.end() - static_cast<std::ptrdiff_t>(placeholder.size()), path.end(),
                  [&] { return alphabet[index(random)]; });
    if (::mkdir(path.c_str(), mode) == 0) return true;
    if (errno != EEXIST) return false;
  }
  return false;
}

}  // namespace

std::string makeTemporaryFolder(std::string_view name, std::string_view parent,
                                std::string_view caller, mode_t mode) {
  constexpr std::string_view placeholder = "XXXXX";
  const std::string pattern = fmt::format("{}/{}.{}", parent, name, placeholder);
  if (pattern.find('\0') != std::string::npos) {
    throw SystemError(
        EINVAL,
        fmt::format("{}: Failed to generate template for temporary folder '{}'", caller, pattern));
  }
  std::string path = pattern;
  if (!makeUniqueFolder(path, placeholder, mode)) {
    throw lastSystemError(
        fmt::format("{}: Failed to create temporary folder '{}'", caller, pattern));
  }
  if (!isValidUtf8(path)) {
    ::rmdir(path.c_str());
    throw SystemError(
        EILSEQ, fmt::format("{}: Failed to validate temporary folder name '{}'", caller, pattern));
  }
  return path;
}

namespace checked {

UniqueFd open(const std::string& path, int flags, mode_t mode, std::string_view caller) {
  UniqueFd fd(retryInterrupted([&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); }));
  if (!fd) {
    throw lastSystemError(fmt::format("{}: open ({}, {:#x}, {:#o})", caller, path, flags, mode));
  }
  return fd;
}

std::size_t read(int fd, void* buffer, std::size_t size, std::string_view caller) {
  const ssize_t got = retryInterrupted([&] { return ::read(fd, buffer, size); });
  if (got < 0) throw lastSystemError(fmt::format("{}: read ({}, {})", caller, fd, size));
  return static_cast<std::size_t>(got);
}

void write(int fd, const void* bytes, std::size_t size, std::string_view caller) {
  const auto* next = static_cast<const char*>(bytes);
  for (std::size_t left = size; left > 0;) {
    const ssize_t written = retryInterrupted([&] { return ::write(fd, next, left); });
    if (written < 0) throw lastSystemError(fmt::format("{}: write ({}, {})", caller, fd, left));
    next += written;
    left -= static_cast<std::size_t>(written);
  }
}

std::int64_t lseek(int fd, std::int64_t offset, int whence, std::string_view caller) {
  const off_t position = ::lseek(fd, offset, whence);
  if (position == -1) {
    throw lastSystemError(fmt::format("{}: lseek ({}, {}, {})", caller, fd, offset, whence));
  }
  return position;
}

std::int64_t fileSize(const std::string& path, std::string_view caller) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw lastSystemError(fmt::format("{}: stat ({})", caller, path));
  }
  return status.st_size;
}

}  // namespace checked

}  // namespace velum
