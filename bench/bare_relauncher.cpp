// The plainest program that does what the helper is for: bare_relauncher EXECUTABLE PID waits for
// the end of a process and starts an executable. No log, no retry, no look at who runs already.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

int main(int count, char** arguments) {
  if (count != 3) return EXIT_FAILURE;
  const std::string_view digits(arguments[2]);
  pid_t watched = 0;
  std::from_chars(digits.begin(), digits.end(), watched);
  const int process = static_cast<int>(::syscall(SYS_pidfd_open, watched, 0));
  if (process < 0) return EXIT_FAILURE;

  if (const char* text = std::getenv("VELUM_READY_FD")) {
    const int ready = std::atoi(text);
    if (::write(ready, "", 1) != 1) return EXIT_FAILURE;
    ::close(ready);
  }

  pollfd ended{process, POLLIN, 0};
  if (::poll(&ended, 1, -1) != 1) return EXIT_FAILURE;
  pid_t started = 0;
  char* const newArguments[] = {arguments[1], nullptr};
  return ::posix_spawn(&started, arguments[1], nullptr, nullptr, newArguments, environ);
}
