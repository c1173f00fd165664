#include "bench/support/Process.h"

#include <poll.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Platform/Spawn.h"
#include "tests/support/Processes.h"

namespace bench {

Process::Process(const std::vector<std::string>& arguments, int inherited) {
  velum::SpawnOptions options;
  options.executable = arguments[0];
  options.arguments = arguments;
  if (inherited >= 0) options.extraDescriptor = inherited;
  id_ = velum::spawn(options);
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
  velum::test::Pipe pipe;
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
  ::setenv("VELUM_READY_FD", std::to_string(velum::SpawnOptions::extraDescriptorNumber).c_str(), 1);
}

}  // namespace bench
