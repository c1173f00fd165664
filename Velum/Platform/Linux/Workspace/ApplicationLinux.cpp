#include "Velum/Platform/Application.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Platform/Linux/Dispatch/MainLoop.h"

namespace velum {
namespace {

/// A standard stream that whoever started us had closed would become the next file or socket that
/// is opened, and what is meant for the stream would land in there.
void reserveStandardStreams() noexcept {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
    if (::fcntl(number, F_GETFD) >= 0) continue;
    // The lowest free number is this one. A place without devices still has a root, which can be
    // neither read nor written.
    if (::open("/dev/null", O_RDWR) < 0) static_cast<void>(::open("/", O_PATH));
  }
}

class ApplicationLinux final : public Application {
 public:
  ApplicationLinux() noexcept {
    prepareProcess();
    std::signal(SIGHUP, SIG_IGN);  // NOLINT(cert-err33-c): can't fail for a valid signal
  }

  [[noreturn]] void run() override { runMainLoop(); }
};

}  // namespace

void prepareProcess() noexcept {
  reserveStandardStreams();
  std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c): can't fail for a valid signal
  std::signal(SIGXFSZ, SIG_IGN);  // NOLINT(cert-err33-c)
  // Ignored by whoever started us, it would have the system forget how our children ended.
  std::signal(SIGCHLD, SIG_DFL);  // NOLINT(cert-err33-c)
}

Application& Application::shared() {
  static NeverDestroyed<ApplicationLinux> instance;
  return *instance;
}

}  // namespace velum
