#include "velumctl/Interruption.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace velumctl {
namespace {

// For the signal handler.
std::atomic<int> receivedSignal{0};
std::atomic<velum::Progress*> cancellable{nullptr};
std::atomic<int> waker{-1};
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<velum::Progress*>::is_always_lock_free);

extern "C" void noteInterruption(int signal) {
  receivedSignal.store(signal);
  if (velum::Progress* const progress = cancellable.load()) progress->cancel();
  const int code = errno;
  if (const int writer = waker.load(); writer >= 0) static_cast<void>(!::write(writer, "", 1));
  errno = code;
}

}  // namespace

Interruption::Interruption() noexcept {
  struct sigaction note {};
  note.sa_handler = noteInterruption;
  note.sa_flags = SA_RESTART;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    ::sigaction(numbers.at(i), nullptr, &before_.at(i));
    if (before_.at(i).sa_handler != SIG_IGN) ::sigaction(numbers.at(i), &note, nullptr);
  }
}

// NOLINTNEXTLINE(*-convert-member-functions-to-static): ends with the object
void Interruption::cancels(velum::Progress& progress) noexcept {
  cancellable = &progress;
  if (isAsked()) progress.cancel();
}

// NOLINTNEXTLINE(*-convert-member-functions-to-static): ends with the object
void Interruption::wakes(int writer) noexcept {
  waker = writer;
}

Interruption::~Interruption() {
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    ::sigaction(numbers.at(i), &before_.at(i), nullptr);
  }
  cancellable = nullptr;
  waker = -1;
}

int Interruption::signal() noexcept {
  return receivedSignal.load();
}

void endBySignal(int signal) {
  const rlimit none{};
  ::setrlimit(RLIMIT_CORE, &none);
  std::signal(signal, SIG_DFL);           // NOLINT(cert-err33-c): can't fail
  static_cast<void>(std::raise(signal));  // comes back only where it is blocked
  ::_exit(EXIT_FAILURE);
}

}  // namespace velumctl
