#include "Velum/Files/AtomicFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/TemporaryFile.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

constexpr mode_t ownerOnly = 0600;

void writeAll(const TemporaryFile& file, std::string_view content, mode_t mode,
              std::string_view caller) {
  checked::write(file.get(), content.data(), content.size(), caller);
  if (mode != ownerOnly && ::fchmod(file.get(), mode) != 0) {
    throw lastSystemError(fmt::format("{}: fchmod ({})", caller, file.path()));
  }
  if (retryInterrupted([&] { return ::fsync(file.get()); }) != 0) {
    throw lastSystemError(fmt::format("{}: fsync ({})", caller, file.path()));
  }
}

/// Makes a rename in `folder` last; some file systems can't, and need not.
void syncFolder(int folder, const std::string& path, std::string_view caller) {
  if (retryInterrupted([&] { return ::fsync(folder); }) == 0) return;
  if (errno == EINVAL || errno == ENOTSUP) return;
  throw lastSystemError(fmt::format("{}: fsync ({})", caller, path));
}

}  // namespace

AtomicFile::AtomicFile(std::string path, mode_t mode) : path_(std::move(path)), mode_(mode) {
  const fs::path parts(path_);
  folder_ = parts.has_parent_path() ? parts.parent_path().string() : ".";
  name_ = parts.filename().string();
}

std::optional<FileStamp> AtomicFile::replace(std::string_view content, std::string_view caller,
                                             Old old) const {
  const UniqueFd folder = checked::open(folder_, O_RDONLY | O_DIRECTORY, 0, caller);
  return replaceIn(folder.get(), content, caller, old);
}

std::optional<FileStamp> AtomicFile::replaceIn(int folder, std::string_view content,
                                               std::string_view caller, Old old) const {
  TemporaryFile file(folder, folder_, name_, caller);
  writeAll(file, content, mode_, caller);
  const auto stamp = FileStamp::ofFile(file.get());
  if (old == Old::setAside) nameAside(folder, caller);
  file.takePlace(caller);
  syncFolder(folder, folder_, caller);
  return stamp;
}

/// Gives what there is, of whatever kind, its name aside as well, in place of what has that. Where
/// there can't be two names it loses the one it had.
void AtomicFile::nameAside(int folder, std::string_view caller) const {
  const std::string aside = name_ + asideSuffix;
  std::error_code error;
  fs::remove_all(path_ + asideSuffix, error);
  if (::linkat(folder, name_.c_str(), folder, aside.c_str(), 0) == 0 || errno == ENOENT) return;
  if (::renameat(folder, name_.c_str(), folder, aside.c_str()) == 0) return;
  throw lastSystemError(fmt::format("{}: rename ({}, {}{})", caller, path_, path_, asideSuffix));
}

}  // namespace velum
