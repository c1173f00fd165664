#include "Velum/Files/TemporaryFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <utility>

#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/FileIdentity.h"

namespace velum {
namespace {

constexpr mode_t ownerOnly = 0600;
constexpr std::string_view suffix = ".new";
constexpr std::size_t randomLength = 14;

bool isTemporaryName(std::string_view text, std::string_view name) {
  return text.size() == name.size() + randomLength + suffix.size() + 2 && text[0] == '.' &&
         text.substr(1, name.size()) == name && text[name.size() + 1] == '.' &&
         text.ends_with(suffix);
}

/// Removes a file whose writer is gone.
void removeIfAbandoned(int folder, const char* name) {
  const UniqueFd file(retryInterrupted(
      [&] { return ::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      (status.st_uid != ::geteuid() && ::geteuid() != 0) ||
      ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    return;
  }
  // A writer that finished meanwhile gave the file another name.
  if (FileIdentity::ofEntry(folder, name) == FileIdentity::of(status)) ::unlinkat(folder, name, 0);
}

/// Whether a name is certainly not, or no longer, that of an open file. (The number of its names
/// does not tell: some file systems hide what is removed while it is open.)
bool isGone(int folder, const std::string& name, int file) {
  const auto named = FileIdentity::ofEntry(folder, name.c_str());
  if (!named) return errno == ENOENT;
  const auto own = FileIdentity::ofFile(file);
  return own && *own != *named;
}

}  // namespace

TemporaryFile::TemporaryFile(int folder, std::string path, std::string name,
                             std::string_view caller)
    : folder_(folder), path_(std::move(path)), name_(std::move(name)) {
  constexpr int mostAttempts = 100;
  constexpr std::chrono::seconds tidying(1);  // ends sooner: whoever tidies up holds it briefly
  // Opened anew, for a place in the folder of its own.
  removeAbandoned(UniqueFd(retryInterrupted(
                      [&] { return ::openat(folder_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); })),
                  name_);
  for (int attempts = 0;; ++attempts) {
    try {
      file_.emplace([&] { return create(caller); }, tidying);
    } catch (const SystemError& error) {
      if (error.code() != EEXIST || attempts == mostAttempts) throw;
      continue;
    }
    // Whoever tidies up may have come between making and locking it. A file system without locks
    // has nobody tidying up either. What can't be seen is ours: if not, the rename fails.
    if (attempts == mostAttempts || !isGone(folder_, temporaryName_, file_->get())) return;
    file_.reset();
    temporaryName_.clear();
  }
}

UniqueFd TemporaryFile::create(std::string_view caller) {
  remove();  // of a turn that a fork came between
  std::string name = anyName(name_);
  UniqueFd file = checked::openIn(folder_, path_ + '/' + name,
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, ownerOnly, caller);
  temporaryName_ = std::move(name);
  return file;
}

void TemporaryFile::takePlace(std::string_view caller) {
  if (::renameat(folder_, temporaryName_.c_str(), folder_, name_.c_str()) != 0) {
    throw lastSystemError(std::string(caller) + ": rename (" + path() + ", " + path_ + '/' + name_ +
                          ')');
  }
  temporaryName_.clear();
}

void TemporaryFile::remove() noexcept {
  if (!temporaryName_.empty()) ::unlinkat(folder_, temporaryName_.c_str(), 0);
  temporaryName_.clear();
}

std::string TemporaryFile::anyName(std::string_view name) {
  std::array<char, randomLength / 2> random{};
  if (::getentropy(random.data(), random.size()) != 0) throw lastSystemError("getentropy");
  std::string any(".");
  any.append(name).append(".").append(hexText({random.data(), random.size()})).append(suffix);
  return any;
}

void TemporaryFile::removeAbandoned(UniqueFd folder, std::string_view name) noexcept {
  struct Closer {
    void operator()(DIR* stream) const noexcept { ::closedir(stream); }
  };
  const int descriptor = folder.get();
  const std::unique_ptr<DIR, Closer> stream(folder ? ::fdopendir(descriptor) : nullptr);
  if (!stream) return;
  static_cast<void>(folder.release());                           // the stream's now
  while (const dirent* const entry = ::readdir(stream.get())) {  // NOLINT(*-mt-unsafe): our stream
    if (isTemporaryName(entry->d_name, name)) removeIfAbandoned(descriptor, entry->d_name);
  }
}

}  // namespace velum
