#pragma once

#include <array>
#include <csignal>

#include "Velum/Base/Progress.h"

namespace velumctl {

/// While it lives, Ctrl-C, a polite kill, a hang-up and a quit (SIGINT, SIGTERM, SIGHUP, SIGQUIT)
/// ask for the end of the work instead of being it, so that nothing half done stays behind. A
/// command that then fails ends by that signal, which is how a shell learns of it. A signal that
/// is ignored, by nohup for instance, stays ignored. One at a time.
class Interruption {
 public:
  Interruption() noexcept;
  explicit Interruption(velum::Progress& progress) noexcept : Interruption() { cancels(progress); }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;
  ~Interruption();

  /// Such a signal, or one that came already, cancels `progress`, which must outlive this object.
  void cancels(velum::Progress& progress) noexcept;
  /// Such a signal writes a byte to the pipe `writer`, which must outlive this object.
  void wakes(int writer) noexcept;

  /// The signal that came while there was an object; 0 for none.
  static int signal() noexcept;
  static bool isAsked() noexcept { return signal() != 0; }

 private:
  static constexpr std::array<int, 4> numbers{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  std::array<struct sigaction, 4> before_{};
};

/// Ends this process as `signal` does by default, but without a core file, in which there would be
/// private data.
[[noreturn]] void endBySignal(int signal);

}  // namespace velumctl
