#include "Velum/Platform/Linux/Secrets/SecretStoreLinux.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <utility>

#include "Velum/Base/AtFork.h"
#include "Velum/Base/Deadline.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Logger/Logger.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"
#include "Velum/Platform/Linux/Processes/UserBus.h"
#include "Velum/Platform/Linux/Secrets/SecretChoice.h"
#include "Velum/Platform/Linux/Secrets/SecretServicePlace.h"
#include "Velum/Platform/Linux/Secrets/SecretWorkers.h"
#include "Velum/Vault/Vault.h"

namespace velum {
namespace {

constexpr std::chrono::seconds publicTimeout(10);

SecretServiceCall callNow(std::chrono::milliseconds timeout) {
  const auto isSet = [](const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr && *value != '\0';
  };
  SecretServiceCall call;
  call.deadline = deadlineAfter(timeout);
  call.lockLimit = bounded(timeout) / 2;
  call.folder = userFolder("XDG_DATA_HOME", ".local/share");
  if (call.folder) call.folder->append("/velum");
  call.credentialsFolder = absoluteVariable("CREDENTIALS_DIRECTORY");
  call.busAddress = userBusAddress();
  call.hasDisplay = isSet("DISPLAY") || isSet("WAYLAND_DISPLAY");
  return call;
}

SecretStatus statusOfErrno(int code) noexcept {
  return code == ETIMEDOUT ? errSecTimedOut : errSecErrnoBase + code;
}

/// Nothing for what no place takes.
std::optional<SecretName> nameOf(const SecretQuery& query) {
  SecretName name{query.service, query.account, query.accessGroup.value_or("")};
  for (const std::string* text : {&name.service, &name.account, &name.accessGroup}) {
    if (!SecretSession::isText(*text)) return std::nullopt;
  }
  return name;
}

}  // namespace

/// What came of a call. The calling thread logs it: the worker's may hold up other calls.
struct SecretStoreLinux::Answer {
  SecretStatus status = errSecSuccess;
  std::string report = {};
  std::optional<SecretPlaceKind> chosen = {};  // just now
  SecretBytes value = {};
  std::vector<SecretName> names = {};
  std::optional<std::string> keychain = {};

  void log() const;
};

void SecretStoreLinux::Answer::log() const {
  constexpr LogSite site{"SecretStore", "run()"};
  if (chosen) {
    logDebug(site, "Secrets are kept in the {}",
             *chosen == SecretPlaceKind::service ? "Secret Service" : "vault");
  }
  if (!report.empty()) logError(site, "{}", report);
}

/// On a worker's thread, which no exception leaves.
void SecretStoreLinux::perform(const Operation& operation, const SecretServiceCall& call,
                               SecretServicePlace& service, Answer& answer) noexcept {
  try {
    if (!call.folder) throw SecretFailure(errSecNotAvailable);
    const PrivateFolder folder(*call.folder);
    service.begin(call);
    const SecretChoice choice = chooseSecretPlace(folder, call, [&] {
      const bool isPresent = service.probe() == SecretServicePlace::Presence::present;
      return isPresent ? SecretPlaceKind::service : SecretPlaceKind::vault;
    });
    if (choice.isNew) answer.chosen = choice.kind;
    Vault vault(folder, call);
    const bool isService = choice.kind == SecretPlaceKind::service;
    operation(isService ? static_cast<SecretPlace&>(service) : vault, answer);
  } catch (const SecretFailure& failure) {
    answer.status = failure.status();
    answer.report = failure.report();
  } catch (const SystemError& error) {
    answer.status = statusOfErrno(error.code());
    answer.report = error.what();
  } catch (const std::bad_alloc&) {
    answer.status = statusOfErrno(ENOMEM);
  }
}

struct SecretStoreLinux::Threads {
  explicit Threads(std::chrono::milliseconds pause) : workers(bounded(pause)) {}

  unsigned generation = forkGeneration();
  SecretWorkers workers;
};

SecretStoreLinux::~SecretStoreLinux() {
  const Threads* const own = threads_.load();
  if (own != nullptr && own->generation == forkGeneration()) delete own;  // NOLINT: see threads()
}

SecretStoreLinux::Threads& SecretStoreLinux::threads() {
  Threads* seen = threads_.load(std::memory_order_acquire);
  if (seen != nullptr && seen->generation == forkGeneration()) return *seen;
  // In a forked child the parent's is left as it is: who held its lock does not live here.
  auto fresh = std::make_unique<Threads>(pauseFactor * timeout_);
  if (threads_.compare_exchange_strong(seen, fresh.get(), std::memory_order_acq_rel)) {
    return *fresh.release();
  }
  return *seen;
}

SecretStoreLinux::Answer SecretStoreLinux::run(Operation operation) {
  const SecretServiceCall call = callNow(timeout_);
  const auto answer = std::make_shared<Answer>();
  auto work = [call, answer, operation = std::move(operation)](SecretServicePlace& service) {
    perform(operation, call, service, *answer);
  };
  try {
    switch (threads().workers.run(std::move(work), call.deadline)) {
      case SecretWorkers::End::done:
        break;
      case SecretWorkers::End::late:
        return {.status = errSecTimedOut};  // what there is of an answer is not ours
      case SecretWorkers::End::refused:
        return {.status = errSecNotAvailable};
    }
  } catch (const std::system_error& error) {
    return {.status = statusOfErrno(error.code().value())};  // no more threads
  }
  answer->log();
  return std::move(*answer);
}

SecretResult SecretStoreLinux::copyMatching(const SecretQuery& query) {
  const auto name = nameOf(query);
  if (!name) return {errSecInvalidData, {}};
  Answer found = run([name](SecretPlace& place, Answer& to) { to.value = place.read(*name); });
  return {found.status, std::move(found.value)};
}

SecretStatus SecretStoreLinux::write(const SecretQuery& query, const SecretBytes& value,
                                     decltype(&SecretPlace::add) how) {
  if (value.size() > maximumValueSize) return statusOfErrno(EFBIG);
  const auto name = nameOf(query);
  if (!name) return errSecInvalidData;
  return run([name, value, how](SecretPlace& place, Answer&) { (place.*how)(*name, value); })
      .status;
}

SecretStatus SecretStoreLinux::remove(const SecretQuery& query) {
  const auto name = nameOf(query);
  if (!name) return errSecInvalidData;
  return run([name](SecretPlace& place, Answer&) { place.remove(*name); }).status;
}

SecretList SecretStoreLinux::list(const std::optional<std::string>& service) {
  if (service && !SecretSession::isText(*service)) return {errSecInvalidData, {}};
  Answer found = run([service](SecretPlace& place, Answer& to) { to.names = place.list(service); });
  SecretList result{found.status, {}};
  for (SecretName& name : found.names) {
    const bool hasGroup = !name.accessGroup.empty();
    SecretQuery& query = result.items.emplace_back();
    query.service = std::move(name.service);
    query.account = std::move(name.account);
    if (hasGroup) query.accessGroup = std::move(name.accessGroup);
    query.usesDataProtectionKeychain = hasGroup;
  }
  return result;
}

SecKeychainList SecretStoreLinux::searchList(SecPreferencesDomain domain) {
  if (domain != SecPreferencesDomain::user) return {};  // Linux has them for users only
  Answer found = run([](SecretPlace& place, Answer& to) { to.keychain = place.keychain(); });
  SecKeychainList result{found.status, {}};
  if (found.keychain) result.keychains.push_back({std::move(*found.keychain)});
  return result;
}

SecretStore& SecretStore::shared() {
  static SecretStoreLinux& instance = *new SecretStoreLinux(publicTimeout);  // NOLINT: never ends
  return instance;
}

}  // namespace velum
