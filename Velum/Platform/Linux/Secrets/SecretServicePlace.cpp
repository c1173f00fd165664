#include "Velum/Platform/Linux/Secrets/SecretServicePlace.h"

#include <fmt/format.h>

#include <atomic>

#include "Velum/Base/SystemError.h"
#include "Velum/Files/PrivateFolder.h"
#include "Velum/Platform/Linux/Secrets/SecretChoice.h"

namespace velum {
namespace {

constexpr const char* serviceAttribute = "service";
constexpr const char* accountAttribute = "account";
constexpr const char* groupAttribute = "accessGroup";

SecretSession::Attributes attributesOf(const SecretName& name) {
  // Services match subsets: without the last one, items of all access groups would be meant.
  return {{serviceAttribute, name.service},
          {accountAttribute, name.account},
          {groupAttribute, name.accessGroup}};
}

SecretName nameOf(const SecretSession::Attributes& attributes) {
  SecretName name;
  for (const auto& [key, value] : attributes) {
    if (key == serviceAttribute) name.service = value;
    if (key == accountAttribute) name.account = value;
    if (key == groupAttribute) name.accessGroup = value;
  }
  return name;
}

/// The right to prompt. While a prompt waits for its answer, another one would only pile up behind
/// it; what is locked then stays locked.
class PromptTurn {
 public:
  explicit PromptTurn(const SecretServiceCall& call) {
    call.requireTime();
    if (!call.hasDisplay || isTaken.exchange(true)) {
      throw SecretFailure(errSecInteractionNotAllowed);
    }
  }
  PromptTurn(const PromptTurn&) = delete;
  PromptTurn& operator=(const PromptTurn&) = delete;
  ~PromptTurn() { isTaken = false; }

  static std::atomic<bool> isTaken;
};
std::atomic<bool> PromptTurn::isTaken{false};

}  // namespace

bool SecretServicePlace::isPrompting() noexcept {
  return PromptTurn::isTaken;
}

SecretSession& SecretServicePlace::connected() {
  if (!call_.busAddress) throw SecretFailure(errSecNotAvailable);
  if (session_ && (session_->busAddress() != *call_.busAddress || !session_->isCurrent())) {
    session_.reset();
  }
  if (!session_) session_ = std::make_unique<SecretSession>(*call_.busAddress);
  return *session_;
}

SecretSession& SecretServicePlace::opened() {
  SecretSession& session = connected();
  session.open();
  return session;
}

/// Once more where the service was started anew and we had not heard of it.
template <class Operation>
auto SecretServicePlace::perform(Operation operation) {
  try {
    return operation(opened());
  } catch (const StaleSession&) {
    session_.reset();
    return operation(opened());
  }
}

SecretServicePlace::Presence SecretServicePlace::probe() {
  if (!call_.busAddress || !connected().isOffered()) return Presence::absent;
  opened();
  return Presence::present;
}

void SecretServicePlace::unlock(SecretSession& session, const std::vector<std::string>& paths) {
  const PromptTurn turn(call_);
  if (!session.unlock(paths)) throw SecretFailure(errSecUserCanceled);
}

/// Nothing for a user whose secrets were never there.
std::optional<std::string> SecretServicePlace::defaultCollection(SecretSession& session) {
  if (auto collection = session.defaultCollection()) return collection;
  const PrivateFolder folder(call_.folder.value());
  if (!folder.has(serviceMarkFileName)) return std::nullopt;
  throw SecretFailure(
      errSecNotAvailable,
      fmt::format("The Secret Service has no default keyring, but has kept secrets before. Log in "
                  "again, restore the keyring, or make a default one; if it was reset on purpose, "
                  "remove {}",
                  folder.pathOf(serviceMarkFileName)));
}

/// What an earlier version stored is marked when it is seen. Who only reads fails for no mark.
void SecretServicePlace::noteFound() const {
  const SecretCall call{.deadline = call_.deadline};  // no time to wait for others
  try {
    markService(PrivateFolder(call_.folder.value()), call);
  } catch (const SecretFailure&) {  // NOLINT(bugprone-empty-catch): the next one does it
  } catch (const SystemError&) {    // NOLINT(bugprone-empty-catch): the same
  }
}

/// The items with these attributes, all unlocked. None: there are none indeed.
std::vector<std::string> SecretServicePlace::find(SecretSession& session,
                                                  const Attributes& attributes) {
  SecretMatches matches = session.search(attributes);
  if (!matches.unlocked.empty() && matches.locked.empty()) return matches.unlocked;
  if (matches.locked.empty()) {
    // A locked collection need not show what it holds.
    const auto collection = defaultCollection(session);
    if (!collection || !session.isLocked(*collection)) return {};
    matches.locked.push_back(*collection);
  }
  unlock(session, matches.locked);
  matches = session.search(attributes);
  if (!matches.locked.empty()) throw SecretFailure(errSecInteractionNotAllowed);
  return matches.unlocked;
}

std::vector<std::string> SecretServicePlace::existing(SecretSession& session,
                                                      const SecretName& name) {
  auto items = find(session, attributesOf(name));
  if (items.empty()) throw SecretFailure(errSecItemNotFound);
  return items;
}

std::string SecretServicePlace::collectionForNew(SecretSession& session) {
  if (auto collection = defaultCollection(session)) return *collection;
  const PromptTurn turn(call_);
  auto collection = session.createDefaultCollection("Login");
  if (!collection) throw SecretFailure(errSecUserCanceled);
  return *collection;
}

SecretBytes SecretServicePlace::read(const SecretName& name) {
  return perform([&](SecretSession& session) {
    SecretBytes value = session.secret(existing(session, name).front());
    noteFound();
    return value;
  });
}

void SecretServicePlace::add(const SecretName& name, const SecretBytes& value) {
  perform([&](SecretSession& session) {
    const Attributes attributes = attributesOf(name);
    if (!find(session, attributes).empty()) throw SecretFailure(errSecDuplicateItem);
    const std::string collection = collectionForNew(session);
    markService(PrivateFolder(call_.folder.value()), call_);
    call_.requireTime();
    session.createItem(collection, name.account + " (" + name.service + ")", attributes, value);
  });
}

void SecretServicePlace::update(const SecretName& name, const SecretBytes& value) {
  perform([&](SecretSession& session) {
    const auto items = existing(session, name);
    markService(PrivateFolder(call_.folder.value()), call_);
    call_.requireTime();
    for (const std::string& item : items) session.setSecret(item, value);
  });
}

void SecretServicePlace::remove(const SecretName& name) {
  perform([&](SecretSession& session) {
    const auto items = existing(session, name);
    call_.requireTime();
    for (const std::string& item : items) session.deleteItem(item);
  });
}

std::vector<SecretName> SecretServicePlace::list(const std::optional<std::string>& service) {
  return perform([&](SecretSession& session) {
    Attributes attributes;
    if (service) attributes.emplace_back(serviceAttribute, *service);
    std::vector<SecretName> names;
    const auto items = find(session, attributes);
    // Those found elsewhere are not all.
    static_cast<void>(defaultCollection(session));
    names.reserve(items.size());
    for (const std::string& item : items) {
      names.push_back(nameOf(session.attributes(item)));
    }
    return names;
  });
}

std::optional<std::string> SecretServicePlace::keychain() {
  return perform([&](SecretSession& session) { return defaultCollection(session); });
}

}  // namespace velum
