#pragma once

namespace velum {

/// The process as an application with a main event loop.
class Application {
 public:
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  virtual ~Application() = default;

  /// The one application object. From its creation on, a closed terminal (SIGHUP) or a reader
  /// that left (SIGPIPE) no longer ends the process; SIGTERM still does.
  static Application& shared();

  /// Runs the main queue on the calling thread. Never returns: the process ends through exit(3).
  [[noreturn]] virtual void run() = 0;

 protected:
  Application() = default;
};

}  // namespace velum
