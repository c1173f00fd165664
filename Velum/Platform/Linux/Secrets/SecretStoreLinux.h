#pragma once

#include <atomic>
#include <chrono>
#include <functional>

#include "Velum/Platform/SecretStore.h"
#include "Velum/Vault/SecretPlace.h"

namespace velum {

class SecretServicePlace;
struct SecretServiceCall;

/// The store of this process's user: the Secret Service of the user's session; on hosts that have
/// none (headless machines, privileged daemons) an encrypted vault file,
/// $XDG_DATA_HOME/velum/vault. Which of the two is decided once per user and recorded beside the
/// vault; a service that is missing later is an error, and so is one without a default keyring that
/// has held secrets of the user before. Environment variables count as they are when a call is
/// made.
///
/// Names must be UTF-8 without NUL and a value at most `maximumValueSize`, wherever secrets are
/// kept: errSecInvalidData, or EFBIG. An access group that is empty is none. The first call of a
/// user, a search as well, chooses and records the place; see chooseSecretPlace.
///
/// A child forked without exec uses the vault as it likes; the service, only when its parent had
/// not used it yet (errSecNotAvailable).
class SecretStoreLinux final : public SecretStore {
 public:
  static constexpr std::size_t maximumValueSize = std::size_t{16} << 20U;  // bytes

  /// After a call that took too long, others fail at once (errSecNotAvailable) for so many times
  /// as long, unless it comes to an end before; not while a prompt waits for its answer.
  static constexpr int pauseFactor = 3;

  /// `timeout`: the longest that a call may take.
  explicit SecretStoreLinux(std::chrono::milliseconds timeout) noexcept : timeout_(timeout) {}
  SecretStoreLinux(const SecretStoreLinux&) = delete;
  SecretStoreLinux& operator=(const SecretStoreLinux&) = delete;
  /// Not while a call is under way.
  ~SecretStoreLinux() override;

  SecretResult copyMatching(const SecretQuery& query) override;
  SecretStatus add(const SecretQuery& query, const SecretBytes& value) override {
    return write(query, value, &SecretPlace::add);
  }
  SecretStatus update(const SecretQuery& query, const SecretBytes& value) override {
    return write(query, value, &SecretPlace::update);
  }
  SecretStatus remove(const SecretQuery& query) override;
  SecretList list(const std::optional<std::string>& service) override;
  SecKeychainList searchList(SecPreferencesDomain domain) override;

 private:
  struct Threads;
  struct Answer;
  using Operation = std::function<void(SecretPlace&, Answer&)>;

  SecretStatus write(const SecretQuery& query, const SecretBytes& value,
                     decltype(&SecretPlace::add) how);
  Answer run(Operation operation);
  static void perform(const Operation& operation, const SecretServiceCall& call,
                      SecretServicePlace& service, Answer& answer) noexcept;
  Threads& threads();

  std::chrono::milliseconds timeout_;
  std::atomic<Threads*> threads_{nullptr};  // owned
};

}  // namespace velum
