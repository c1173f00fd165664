#pragma once

#include <chrono>
#include <compare>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Velum/Base/SecretBytes.h"
#include "Velum/Platform/SecretStatus.h"

namespace velum {

/// What names an item. An access group that is empty is none.
struct SecretName {
  std::string service;
  std::string account;
  std::string accessGroup;

  auto operator<=>(const SecretName&) const = default;  // NOLINT(modernize-use-nullptr): false
};

/// Ends an operation with this status. What `report` says goes to the log, once no lock is held.
class SecretFailure : public std::runtime_error {
 public:
  explicit SecretFailure(SecretStatus status, const std::string& report = {})
      : std::runtime_error(report), status_(status) {}
  SecretStatus status() const noexcept { return status_; }
  const char* report() const noexcept { return what(); }

 private:
  SecretStatus status_;
};

/// The surroundings of one call, taken on the caller's thread.
struct SecretCall {
  using Clock = std::chrono::steady_clock;

  /// Nobody waits for the result after this.
  Clock::time_point deadline;
  /// The longest that a lock is waited for: less than that, so that its caller hears of it.
  std::chrono::nanoseconds lockLimit{0};
  /// What the service manager hands over to this process.
  std::optional<std::string> credentialsFolder = {};

  /// Before a change: one that nobody waits for any more is not begun, for its caller was told
  /// that it failed. Throws SecretFailure.
  void requireTime() const {
    if (Clock::now() >= deadline) throw SecretFailure(errSecTimedOut);
  }
};

/// A place that holds items: the vault, or a service of the system. Operations throw SecretFailure,
/// and SystemError for system calls. One thread at a time.
class SecretPlace {
 public:
  SecretPlace() = default;
  SecretPlace(const SecretPlace&) = delete;
  SecretPlace& operator=(const SecretPlace&) = delete;
  virtual ~SecretPlace() = default;

  virtual SecretBytes read(const SecretName& name) = 0;
  virtual void add(const SecretName& name, const SecretBytes& value) = 0;
  virtual void update(const SecretName& name, const SecretBytes& value) = 0;
  virtual void remove(const SecretName& name) = 0;
  /// The items of one service, or all.
  virtual std::vector<SecretName> list(const std::optional<std::string>& service) = 0;
  /// What the system calls the place; nothing when there is none yet.
  virtual std::optional<std::string> keychain() = 0;
};

}  // namespace velum
