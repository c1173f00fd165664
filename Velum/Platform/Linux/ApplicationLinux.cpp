#include "Velum/Platform/Application.h"

#include <csignal>

#include "Velum/Platform/Linux/MainLoop.h"

namespace velum {
namespace {

class ApplicationLinux final : public Application {
 public:
  ApplicationLinux() noexcept {
    std::signal(SIGHUP, SIG_IGN);   // NOLINT(cert-err33-c): can't fail for a valid signal
    std::signal(SIGPIPE, SIG_IGN);  // NOLINT(cert-err33-c)
  }

  [[noreturn]] void run() override { runMainLoop(); }
};

}  // namespace

Application& Application::shared() {
  static Application& instance = *new ApplicationLinux;  // NOLINT(*-owning-memory): never destroyed
  return instance;
}

}  // namespace velum
