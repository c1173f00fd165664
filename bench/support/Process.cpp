#include "bench/support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/UniqueFd.h"

namespace bench {
namespace {

constexpr int readyDescriptor = 3;

// What posix_spawn does in the child before the program begins.
class FileActions {
 public:
  FileActions() { ::posix_spawn_file_actions_init(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }

  void open(int descriptor, const char* path) {
    ::posix_spawn_file_actions_addopen(&actions_, descriptor, path, O_RDWR, 0);
  }
  void duplicate(int from, int to) { ::posix_spawn_file_actions_adddup2(&actions_, from, to); }
  const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw velum::lastSystemError("pipe2 ()");
    reader.reset(ends[0]);
    writer.reset(ends[1]);
  }
  velum::UniqueFd reader;
  velum::UniqueFd writer;
};

}  // namespace

Process::Process(const std::vector<std::string>& arguments, int inherited) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));  // NOLINT(*-const-cast): C interface
  }
  pointers.push_back(nullptr);
  FileActions actions;
  for (const int stream : {0, 1, 2}) actions.open(stream, "/dev/null");
  if (inherited >= 0) actions.duplicate(inherited, readyDescriptor);
  const int error =
      ::posix_spawnp(&id_, pointers[0], actions.get(), nullptr, pointers.data(), environ);
  if (error != 0) throw velum::SystemError(error, "posix_spawnp (" + arguments[0] + ")");
}

Process::~Process() {
  end();
}

void Process::end() noexcept {
  if (id_ > 0) ::kill(id_, SIGKILL);
  wait();
}

int Process::wait() noexcept {
  int status = 0;
  if (id_ > 0) velum::retryInterrupted([&] { return ::waitpid(id_, &status, 0); });
  id_ = -1;
  return status;
}

void awaitReadable(int descriptor, const std::string& what) {
  pollfd waiting{descriptor, POLLIN, 0};
  constexpr int milliseconds = 10'000;
  if (velum::retryInterrupted([&] { return ::poll(&waiting, 1, milliseconds); }) != 1 ||
      (waiting.revents & POLLIN) == 0) {
    throw velum::SystemError(ETIMEDOUT, what);
  }
}

std::unique_ptr<Process> startReady(const std::vector<std::string>& arguments) {
  Pipe pipe;
  auto process = std::make_unique<Process>(arguments, pipe.writer.get());
  pipe.writer.reset();  // so that the process's death ends the wait
  awaitReadable(pipe.reader.get(), arguments[0] + " does not say that it is ready");
  return process;
}

void isolateEnvironment(const std::string& folder) {
  constexpr std::array<std::pair<const char*, const char*>, 6> folders{{
      {"HOME", "home"},
      {"XDG_DATA_HOME", "data"},
      {"XDG_CONFIG_HOME", "config"},
      {"XDG_CACHE_HOME", "cache"},
      {"XDG_STATE_HOME", "state"},
      {"XDG_RUNTIME_DIR", "runtime"},
  }};
  for (const auto& [variable, name] : folders) {
    const std::filesystem::path path = std::filesystem::path(folder) / name;
    std::filesystem::create_directory(path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    ::setenv(variable, path.c_str(), 1);
  }
  ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
  ::setenv("VELUM_READY_FD", std::to_string(readyDescriptor).c_str(), 1);
}

}  // namespace bench
