#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Velum/Vault/SecretPlace.h"

namespace velum {

/// What an operation relied on is gone: the service's process and our session with it, or an item
/// that was just found. Nothing was changed; once more from the beginning may do.
class StaleSession : public SecretFailure {
 public:
  StaleSession() : SecretFailure(errSecNotAvailable) {}
};

/// Object paths of the items that a search found.
struct SecretMatches {
  std::vector<std::string> unlocked;
  std::vector<std::string> locked;
};

/// A bus connection of our own, and a session with the Secret Service on it: libsecret's calls in
/// this project's types. A connection of the application's would end the process with the bus.
///
/// Calls throw SecretFailure and take one round trip unless it is said otherwise, or as long as
/// the service likes. Made, used and destroyed on one thread.
class SecretSession {
 public:
  using Attributes = std::vector<std::pair<std::string, std::string>>;

  /// Marks our items, beside the attributes; those of other programs are never found.
  static constexpr const char* schemaName = "com.quillon.velum.GenericPassword";

  /// Whether a message can carry the text: UTF-8 without NUL. Any thread.
  static bool isText(const std::string& text);

  /// Connects to the bus. Starts no service. Fails in a child forked from a process that had a
  /// session: the bus library's thread does not live there.
  explicit SecretSession(std::string busAddress);
  SecretSession(const SecretSession&) = delete;
  SecretSession& operator=(const SecretSession&) = delete;
  ~SecretSession();

  const std::string& busAddress() const noexcept { return busAddress_; }
  /// False when bus or service are known to have gone since; asks nobody.
  bool isCurrent();
  /// Whether somebody on the bus is the service, or can be started to be it.
  bool isOffered();
  /// Opens the session, before the calls below. Starts the service where it must; several round
  /// trips the first time, none later.
  void open();

  SecretMatches search(const Attributes& attributes);
  SecretBytes secret(const std::string& item);
  void setSecret(const std::string& item, const SecretBytes& value);
  void createItem(const std::string& collection, const std::string& label,
                  const Attributes& attributes, const SecretBytes& value);
  void deleteItem(const std::string& item);
  Attributes attributes(const std::string& item);

  /// The path of the default collection; nothing when there is none.
  std::optional<std::string> defaultCollection();
  bool isLocked(const std::string& collection);

  /// Both prompt the user, and wait for an answer however long it takes. Nothing, or false, when
  /// it was no.
  bool unlock(const std::vector<std::string>& paths);
  std::optional<std::string> createDefaultCollection(const std::string& label);

 private:
  struct Handles;

  std::string busAddress_;
  std::unique_ptr<Handles> handles_;
};

}  // namespace velum
