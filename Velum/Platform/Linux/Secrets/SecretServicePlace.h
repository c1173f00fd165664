#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Velum/Platform/Linux/Secrets/SecretSession.h"
#include "Velum/Vault/SecretPlace.h"

namespace velum {

/// The surroundings of a call as the service needs them.
struct SecretServiceCall : SecretCall {
  /// Where vault, key and record are. Nothing when the user has no home.
  std::optional<std::string> folder;
  /// D-Bus address of the session's bus; nothing when there is no session bus.
  std::optional<std::string> busAddress;
  /// A prompt would be seen.
  bool hasDisplay = false;
};

/// The items in the Secret Service of the user's session. They lie in the default collection under
/// the attributes service, account and accessGroup (always there, empty for none), labelled
/// "account (service)". The session is opened by the first operation and kept; a service that was
/// started anew is noticed.
///
/// A service without a default collection, which was given secrets before (see markService), holds
/// no answer for anything: errSecNotAvailable. Any default collection that is there is believed.
///
/// What is locked stays apart from what is missing. A prompt to unlock is only tried where there
/// is a display, and only one at a time. Operations take as long as the service wants, prompts as
/// long as the user wants. One thread for all of the object's life.
class SecretServicePlace final : public SecretPlace {
 public:
  enum class Presence : std::uint8_t { present, absent };

  /// Whether a prompt waits for the user's answer, in any thread. Any thread.
  static bool isPrompting() noexcept;

  /// The call that the next operation is for, with a folder; a copy is kept.
  void begin(const SecretServiceCall& call) { call_ = call; }

  /// Whether the session has a Secret Service. Present: it answered. Absent: there is no bus, or
  /// nobody is the service and nobody can be started to be it. Throws SecretFailure while neither
  /// is certain.
  Presence probe();

  SecretBytes read(const SecretName& name) override;
  void add(const SecretName& name, const SecretBytes& value) override;
  void update(const SecretName& name, const SecretBytes& value) override;
  void remove(const SecretName& name) override;
  std::vector<SecretName> list(const std::optional<std::string>& service) override;
  std::optional<std::string> keychain() override;

 private:
  using Attributes = SecretSession::Attributes;

  SecretSession& connected();
  SecretSession& opened();
  template <class Operation>
  auto perform(Operation operation);
  std::vector<std::string> find(SecretSession& session, const Attributes& attributes);
  std::vector<std::string> existing(SecretSession& session, const SecretName& name);
  std::optional<std::string> defaultCollection(SecretSession& session);
  std::string collectionForNew(SecretSession& session);
  void noteFound() const;
  void unlock(SecretSession& session, const std::vector<std::string>& paths);

  SecretServiceCall call_;
  std::unique_ptr<SecretSession> session_;
};

}  // namespace velum
