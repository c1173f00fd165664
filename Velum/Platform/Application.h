#pragma once

namespace velum {

/// What a program does first thing in main(), so that nothing it inherited harms it: a reader that
/// left (SIGPIPE) or a file that may grow no further (SIGXFSZ) is a failed write and no longer the
/// end of the process; how children end is known, also where SIGCHLD was ignored before; and
/// standard streams that were closed lead to the null device.
void prepareProcess() noexcept;

/// The process as an application with a main event loop.
class Application {
 public:
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  virtual ~Application() = default;

  /// The one application object. Make it first thing in main(): it calls prepareProcess, and from
  /// then on a closed terminal (SIGHUP) no longer ends the process, while SIGTERM still does.
  static Application& shared();

  /// Runs the main queue on the calling thread. Never returns: the process ends through exit(3).
  [[noreturn]] virtual void run() = 0;

 protected:
  Application() = default;
};

}  // namespace velum
