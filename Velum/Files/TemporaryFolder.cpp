#include "Velum/Files/TemporaryFolder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <random>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/FileIdentity.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

/// The mark of these folders: of no use to a folder that only its owner may write to.
constexpr mode_t mark = 0700 | S_ISVTX;
constexpr std::chrono::nanoseconds once{0};

UniqueFd openFolder(const std::string& path) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  return UniqueFd(retryInterrupted([&] { return ::open(path.c_str(), flags); }));
}

/// Whether a folder's name is one for `name`, or for another name with its extension.
bool isOfKind(std::string_view folder, const fs::path& name) {
  constexpr std::size_t randomSize = 6;  // with its dot
  if (folder.size() <= randomSize) return false;
  const std::string_view random = folder.substr(folder.size() - randomSize);
  const auto isPlain = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  };
  if (random[0] != '.' || !std::ranges::all_of(random.substr(1), isPlain)) return false;
  const std::string_view ownName = folder.substr(0, folder.size() - randomSize);
  const std::string extension = name.extension().native();
  return extension.empty() ? ownName == name.native() : ownName.ends_with(extension);
}

bool isMarked(const UniqueFd& folder) {
  struct stat status {};
  return folder && ::fstat(folder.get(), &status) == 0 && status.st_uid == ::geteuid() &&
         (status.st_mode & 07777U) == mark;
}

void removeLeftOver(const std::string& parent, const fs::path& name) {
  std::error_code error;
  for (auto entry = fs::directory_iterator(parent, error);
       !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (!isOfKind(entry->path().filename().native(), name)) continue;
    const UniqueFd folder = openFolder(entry->path().native());
    if (!isMarked(folder)) continue;
    const FileLock lock = FileLock::tryFor(folder.get(), once);
    std::error_code ignored;
    if (lock.state() == FileLock::State::held) fs::remove_all(entry->path(), ignored);
  }
}

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

TemporaryFolder::TemporaryFolder(std::string_view name, const std::string& parent,
                                 std::string_view caller) {
  constexpr int attempts = 100;
  removeLeftOver(parent, name);
  for (int attempt = 0; attempt < attempts; ++attempt) {
    path_ = makeTemporaryFolder(name, parent, caller, mark);
    if (tryToOwn()) return;
    const int error = errno;
    if (folder_ || error == ENOENT) continue;
    ::rmdir(path_.c_str());
    throw SystemError(error,
                      fmt::format("{}: Failed to create temporary folder '{}'", caller, path_));
  }
  throw SystemError(EBUSY,
                    fmt::format("{}: Failed to create temporary folder '{}'", caller, path_));
}

/// False when another process took it for left over before it was locked, and removes it; or, with
/// nothing open, for what `errno` says.
bool TemporaryFolder::tryToOwn() {
  lock_.reset();
  folder_ = openFolder(path_);
  if (!folder_ || !lock_.emplace(FileLock::tryFor(folder_.get(), once))) return false;
  const auto own = FileIdentity::ofFile(folder_.get());
  return own && own == FileIdentity::ofEntry(AT_FDCWD, path_.c_str());
}

std::error_code TemporaryFolder::remove() const noexcept {
  std::error_code error;
  fs::remove_all(path_, error);
  return error;
}

}  // namespace velum
