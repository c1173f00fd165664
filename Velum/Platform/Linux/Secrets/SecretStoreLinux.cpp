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
#include "Velum/Platform/Linux/Processes/UserBusLinux.h"
#include "Velum/Platform/Linux/Secrets/SecretChoiceLinux.h"
#include "Velum/Platform/Linux/Secrets/SecretServiceLinux.h"
#include "Velum/Platform/Linux/Secrets/SecretWorkersLinux.h"
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

/// What the calling thread learns and logs: the worker's may hold up other calls.
struct Outcome {
  SecretStatus status = errSecSuccess;
  std::string report;
  std::optional<SecretPlaceKind> chosen;  // just now
};

void onChosenPlace(const SecretServiceCall& call, SecretServiceLinux& service, Outcome& outcome,
                   const std::function<void(SecretPlace&)>& operation) {
  if (!call.folder) throw SecretFailure(errSecNotAvailable);
  const PrivateFolder folder(*call.folder);
  service.begin(call);
  const SecretChoice choice = chooseSecretPlace(folder, call, [&] {
    const bool isPresent = service.probe() == SecretServiceLinux::Presence::present;
    return isPresent ? SecretPlaceKind::service : SecretPlaceKind::vault;
  });
  if (choice.isNew) outcome.chosen = choice.kind;
  if (choice.kind == SecretPlaceKind::service) return operation(service);
  Vault vault(folder, call);
  operation(vault);
}

/// No exception leaves the thread.
void guarded(Outcome& outcome, const std::function<void()>& work) noexcept {
  try {
    work();
  } catch (const SecretFailure& failure) {
    outcome.status = failure.status();
    outcome.report = failure.report();
  } catch (const SystemError& error) {
    outcome.status = statusOfErrno(error.code());
    outcome.report = error.what();
  } catch (const std::bad_alloc&) {
    outcome.status = statusOfErrno(ENOMEM);
  }
}

void log(const Outcome& outcome) {
  constexpr LogSite site{"SecretStore", "run()"};
  if (outcome.chosen) {
    logDebug(site, "Secrets are kept in the {}",
             *outcome.chosen == SecretPlaceKind::service ? "Secret Service" : "vault");
  }
  if (!outcome.report.empty()) logError(site, "{}", outcome.report);
}

}  // namespace

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

SecretStatus SecretStoreLinux::run(std::function<void(SecretPlace&)> operation) {
  const SecretServiceCall call = callNow(timeout_);
  const auto outcome = std::make_shared<Outcome>();
  auto work = [call, outcome, operation = std::move(operation)](SecretServiceLinux& service) {
    guarded(*outcome, [&] { onChosenPlace(call, service, *outcome, operation); });
  };
  try {
    switch (threads().workers.run(std::move(work), call.deadline)) {
      case SecretWorkers::End::done:
        break;
      case SecretWorkers::End::late:
        return errSecTimedOut;
      case SecretWorkers::End::refused:
        return errSecNotAvailable;
    }
  } catch (const std::system_error& error) {
    return statusOfErrno(error.code().value());  // no more threads
  }
  log(*outcome);
  return outcome->status;
}

SecretStatus SecretStoreLinux::runNamed(
    const SecretQuery& query, std::function<void(SecretPlace&, const SecretName&)> operation) {
  SecretName name{query.service, query.account, query.accessGroup.value_or("")};
  for (const std::string* text : {&name.service, &name.account, &name.accessGroup}) {
    if (!SecretSession::isText(*text)) return errSecInvalidData;
  }
  return run([name = std::move(name), operation = std::move(operation)](SecretPlace& place) {
    operation(place, name);
  });
}

SecretResult SecretStoreLinux::copyMatching(const SecretQuery& query) {
  const auto data = std::make_shared<SecretBytes>();
  const SecretStatus status =
      runNamed(query, [data](SecretPlace& place, const auto& name) { *data = place.read(name); });
  if (status != errSecSuccess) return {status, {}};  // after a time-out, the data is not ours
  return {status, std::move(*data)};
}

SecretStatus SecretStoreLinux::add(const SecretQuery& query, const SecretBytes& value) {
  if (value.size() > maximumValueSize) return statusOfErrno(EFBIG);
  return runNamed(query, [value](SecretPlace& place, const auto& name) { place.add(name, value); });
}

SecretStatus SecretStoreLinux::update(const SecretQuery& query, const SecretBytes& value) {
  if (value.size() > maximumValueSize) return statusOfErrno(EFBIG);
  return runNamed(query,
                  [value](SecretPlace& place, const auto& name) { place.update(name, value); });
}

SecretStatus SecretStoreLinux::remove(const SecretQuery& query) {
  return runNamed(query, [](SecretPlace& place, const auto& name) { place.remove(name); });
}

SecretList SecretStoreLinux::list(const std::optional<std::string>& service) {
  const auto names = std::make_shared<std::vector<SecretName>>();
  if (service && !SecretSession::isText(*service)) return {errSecInvalidData, {}};
  SecretList result;
  result.status = run([names, service](SecretPlace& place) { *names = place.list(service); });
  if (result.status != errSecSuccess) return result;
  for (SecretName& name : *names) {
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
  SecKeychainList result;
  if (domain != SecPreferencesDomain::user) return result;  // Linux has them for users only
  const auto name = std::make_shared<std::optional<std::string>>();
  result.status = run([name](SecretPlace& place) { *name = place.keychain(); });
  if (result.status == errSecSuccess && *name) result.keychains.push_back({std::move(**name)});
  return result;
}

SecretStore& SecretStore::shared() {
  static SecretStoreLinux& instance = *new SecretStoreLinux(publicTimeout);  // NOLINT: never ends
  return instance;
}

}  // namespace velum
