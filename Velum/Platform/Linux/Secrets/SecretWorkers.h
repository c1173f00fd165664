#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "Velum/Vault/SecretPlace.h"

namespace velum {

class SecretServicePlace;

/// Runs the store's calls on a thread of its own, so that a caller can go when its time is up: a
/// call to the service may hang for ever, and an open prompt must not be cancelled (that ends the
/// service). A thread whose caller went is left to itself and another takes over; it serves again
/// if it ever comes back. Thread-safe.
class SecretWorkers {
 public:
  /// Owns all it uses: it may run on, or begin, after the caller went. Must not throw. The
  /// connection is the thread's own.
  using Work = std::function<void(SecretServicePlace&)>;

  /// The most threads left to themselves. With so many, calls wait for one to come back.
  static constexpr int maximumAbandoned = 4;

  enum class End : std::uint8_t {
    done,
    late,     ///< Not before the deadline: it never begins, or goes on unobserved.
    refused,  ///< Not begun: another was late within the last `pause`, and hangs still.
  };

  explicit SecretWorkers(std::chrono::nanoseconds pause);
  SecretWorkers(const SecretWorkers&) = delete;
  SecretWorkers& operator=(const SecretWorkers&) = delete;
  /// Does not wait for the threads.
  ~SecretWorkers();

  /// Runs the work after what others have asked for. Throws std::system_error when no thread can
  /// be started.
  End run(Work work, SecretCall::Clock::time_point deadline);

 private:
  struct Job;
  struct State;
  static void serve(const std::shared_ptr<State>& state);

  std::shared_ptr<State> state_;
};

}  // namespace velum
