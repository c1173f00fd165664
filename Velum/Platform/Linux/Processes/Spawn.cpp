#include "Velum/Platform/Spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string_view>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"

namespace velum {
namespace {

constexpr int firstFreeNumber = SpawnOptions::extraDescriptorNumber + 1;

// The posix_spawn family returns its error instead of setting errno.
void check(int error, const SpawnOptions& options, std::string_view call) {
  if (error == 0) return;
  throw SystemError(error, std::string(call) + " (" + options.executable + ")");
}

// Which of its steps failed, posix_spawn(3) does not say.
void checkDirectory(const std::string& directory) {
  if (!directory.empty() && ::access((directory + "/.").c_str(), X_OK) != 0) {
    throw lastSystemError("chdir (" + directory + ")");
  }
}

class Attributes {
 public:
  explicit Attributes(const SpawnOptions& options) {
    check(::posix_spawnattr_init(&attributes_), options, "posix_spawnattr_init");
    sigset_t signals{};
    // Not sigfillset(3): it leaves out the two signals that the C library keeps to itself, and
    // the new process would be born ignoring them.
    std::memset(&signals, 0xff, sizeof signals);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    int flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    if (options.newSession) flags |= POSIX_SPAWN_SETSID;
    ::posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
  }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() { ::posix_spawnattr_destroy(&attributes_); }

  const posix_spawnattr_t* get() const noexcept { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

class FileActions {
 public:
  explicit FileActions(const SpawnOptions& options) : options_(options) {
    check(::posix_spawn_file_actions_init(&actions_), options_, "posix_spawn_file_actions_init");
  }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }

  void giveNullDevice(int number) {
    const int mode = number == STDIN_FILENO ? O_RDONLY : O_WRONLY;
    check(::posix_spawn_file_actions_addopen(&actions_, number, "/dev/null", mode, 0), options_,
          "posix_spawn_file_actions_addopen");
  }

  /// `descriptor` must not be one of the numbers that are given out.
  void give(int descriptor, int number) {
    check(::posix_spawn_file_actions_adddup2(&actions_, descriptor, number), options_,
          "posix_spawn_file_actions_adddup2");
  }

  void closeFrom(int number) {
    check(::posix_spawn_file_actions_addclosefrom_np(&actions_, number), options_,
          "posix_spawn_file_actions_addclosefrom_np");
  }

  void changeDirectory(const std::string& directory) {
    check(::posix_spawn_file_actions_addchdir_np(&actions_, directory.c_str()), options_,
          "posix_spawn_file_actions_addchdir_np");
  }

  const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

 private:
  const SpawnOptions& options_;
  posix_spawn_file_actions_t actions_{};
};

/// The descriptors to give out, none of them below `firstFreeNumber`: there, one action could
/// overwrite the source of a later one.
class Sources {
 public:
  int above(int descriptor) {
    if (descriptor >= firstFreeNumber) return descriptor;
    UniqueFd copy(::fcntl(descriptor, F_DUPFD_CLOEXEC, firstFreeNumber));
    if (!copy) throw lastSystemError("spawn, fcntl (" + std::to_string(descriptor) + ")");
    return copies_.emplace_back(std::move(copy)).get();
  }

 private:
  std::vector<UniqueFd> copies_;
};

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (const std::string& text : texts) {
    // The system only reads them; its prototype is older than const.
    result.push_back(const_cast<char*>(text.c_str()));  // NOLINT(*-const-cast)
  }
  result.push_back(nullptr);
  return result;
}

}  // namespace

pid_t spawn(const SpawnOptions& options) {
  const Attributes attributes(options);
  FileActions actions(options);
  Sources sources;
  for (int number = 0; number < static_cast<int>(options.standardStreams.size()); ++number) {
    const int descriptor = options.standardStreams.at(static_cast<std::size_t>(number));
    if (descriptor == SpawnOptions::nullDevice) {
      actions.giveNullDevice(number);
    } else {
      actions.give(sources.above(descriptor), number);
    }
  }
  int closeFrom = SpawnOptions::extraDescriptorNumber;
  if (options.extraDescriptor) actions.give(sources.above(*options.extraDescriptor), closeFrom++);
  actions.closeFrom(closeFrom);
  if (!options.directory.empty()) actions.changeDirectory(options.directory);

  const std::vector<char*> arguments = pointers(options.arguments);
  std::vector<char*> environment;
  if (options.environment) environment = pointers(*options.environment);
  pid_t pid = -1;
  const int error =
      ::posix_spawn(&pid, options.executable.c_str(), actions.get(), attributes.get(),
                    arguments.data(), options.environment ? environment.data() : environ);
  if (error != 0) checkDirectory(options.directory);
  check(error, options, "posix_spawn");
  return pid;
}

int inheritedStream(int number) noexcept {
  const int flags = ::fcntl(number, F_GETFD);
  return flags < 0 || (flags & FD_CLOEXEC) != 0 ? SpawnOptions::nullDevice : number;
}

std::vector<std::string> environmentWithout(const std::vector<std::string>& names) {
  std::vector<std::string> result;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view variable(*entry);
    const std::string_view name = variable.substr(0, variable.find('='));
    if (std::find(names.begin(), names.end(), name) == names.end()) result.emplace_back(variable);
  }
  return result;
}

}  // namespace velum
