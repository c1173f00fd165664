#include "Velum/Platform/Linux/Certificates/CertificateStoreLinux.h"

#include <sys/stat.h>

#include <fmt/format.h>
#include <cerrno>
#include <new>
#include <string_view>
#include <utility>

#include "Velum/Base/NeverDestroyed.h"
#include "Velum/Base/String.h"
#include "Velum/Base/SystemError.h"
#include "Velum/Files/AbsolutePath.h"
#include "Velum/Platform/Linux/Certificates/CertificatePlace.h"
#include "Velum/Platform/Linux/Certificates/NssDatabase.h"
#include "Velum/Platform/Linux/Files/XdgFolders.h"

namespace velum {
namespace {

constexpr std::string_view databaseMark = "sql:";  // as NSS's own tools name a database's folder
constexpr std::string_view userDatabase = ".pki/nssdb";
constexpr mode_t ownerOnly = 0700;

bool isText(std::string_view bytes) {
  return isValidUtf8(bytes) && bytes.find('\0') == std::string_view::npos;
}

/// The folder of an NSS database.
std::string databaseFolder(const SecKeychain& keychain) {
  const std::string_view name = keychain.name;
  if (!name.starts_with(databaseMark) || !isText(name)) {
    throw CertificateFailure(errSecNoSuchKeychain);
  }
  return std::string(name.substr(databaseMark.size()));
}

/// Makes it and the folders above where they are missing.
void makeFolder(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    ::mkdir(path.substr(0, slash).c_str(), ownerOnly);  // what fails shows below
  }
  if (::mkdir(path.c_str(), ownerOnly) != 0 && errno != EEXIST) {
    throw lastSystemError("mkdir (" + path + ")");
  }
}

}  // namespace

SecKeychainList CertificateStoreLinux::searchList(SecPreferencesDomain domain) {
  switch (domain) {
    case SecPreferencesDomain::user: {
      const auto home = homeFolder();
      if (!home) return {errSecNotAvailable, {}};
      return {errSecSuccess, {{fmt::format("{}{}/{}", databaseMark, *home, userDatabase)}}};
    }
    case SecPreferencesDomain::system:
    case SecPreferencesDomain::common:
      return {errSecSuccess, {{machine_.folder()}}};
    case SecPreferencesDomain::dynamic:
      break;  // smart cards, which are no affair of these places
  }
  return {};
}

SecKeychain CertificateStoreLinux::keychain(SecPreferencesDomain domain) {
  SecKeychainList list = searchList(domain);
  if (list.status != errSecSuccess) throw CertificateFailure(list.status);
  if (list.keychains.empty()) throw CertificateFailure(errSecNoSuchKeychain);
  return std::move(list.keychains.front());
}

CertificateStatus CertificateStoreLinux::add(const SecCertificate& certificate,
                                             const std::string& label,
                                             const SecKeychain& keychain) {
  return statusOf([&] {
    if (!isText(label)) {
      throw CertificateFailure(errSecParam, "The name is not UTF-8 text, or contains a NUL.");
    }
    if (isMachine(keychain)) return machine_.add(certificate, label);
    const std::string folder = databaseFolder(keychain);
    makeFolder(folder);
    NssDatabase::with(folder, NssDatabase::Access::write,
                      [&](NssDatabase& database) { database.add(certificate, label); });
  });
}

CertificateStatus CertificateStoreLinux::remove(const std::string& label,
                                                const SecKeychain& keychain) {
  return statusOf([&] {
    if (isMachine(keychain)) return machine_.remove(label);
    const std::string folder = databaseFolder(keychain);
    if (!NssDatabase::isIn(folder)) throw CertificateFailure(errSecItemNotFound);
    NssDatabase::with(folder, NssDatabase::Access::write,
                      [&](NssDatabase& database) { database.remove(label); });
  });
}

CertificateList CertificateStoreLinux::list(const SecKeychain& keychain) {
  CertificateList list;
  list.status = statusOf([&] {
    if (isMachine(keychain)) {
      list.items = machine_.certificates();
      return;
    }
    const std::string folder = databaseFolder(keychain);
    if (!NssDatabase::isIn(folder)) return;
    NssDatabase::with(folder, NssDatabase::Access::read,
                      [&](NssDatabase& database) { list.items = database.certificates(); });
  });
  return list;
}

TrustSettings CertificateStoreLinux::copyTrustSettings(const SecCertificate& certificate,
                                                       SecPreferencesDomain domain) {
  TrustSettings found;
  found.status = statusOf([&] {
    const SecKeychain place = keychain(domain);
    if (isMachine(place)) {
      if (!machine_.isTrusted(certificate)) throw CertificateFailure(errSecNoTrustSettings);
      return;
    }
    const std::string folder = databaseFolder(place);
    TrustByUse trust{};
    if (NssDatabase::isIn(folder)) {
      NssDatabase::with(folder, NssDatabase::Access::read,
                        [&](NssDatabase& database) { trust = database.trust(certificate); });
    }
    if (trust == TrustByUse{}) throw CertificateFailure(errSecNoTrustSettings);
    found.settings = settingsOfTrust(trust, certificate.isAuthority());
  });
  return found;
}

CertificateStatus CertificateStoreLinux::setTrustSettings(
    const SecCertificate& certificate, SecPreferencesDomain domain,
    const std::optional<PropertyList>& settings) {
  return statusOf([&] {
    const SecKeychain place = keychain(domain);
    if (isMachine(place)) {
      if (!machine_.isTrusted(certificate)) throw CertificateFailure(errSecItemNotFound);
      if (settings == PropertyList(PropertyList::Array{})) return;
      throw CertificateFailure(errSecUnimplemented,
                               "The machine's certificates have no settings: one that is there is "
                               "trusted always.");
    }
    const auto trust =
        settings ? trustOfSettings(*settings, certificate.isAuthority()) : TrustByUse{};
    if (!trust) throw CertificateFailure(errSecParam, "These settings can't be kept.");
    const std::string folder = databaseFolder(place);
    if (!NssDatabase::isIn(folder)) throw CertificateFailure(errSecItemNotFound);
    NssDatabase::with(folder, NssDatabase::Access::write,
                      [&](NssDatabase& database) { database.setTrust(certificate, *trust); });
  });
}

CertificateStore& CertificateStore::shared() {
  static NeverDestroyed<CertificateStoreLinux> instance;
  return *instance;
}

std::unique_ptr<CertificateStore> CertificateStore::forRoot(const std::string& root) {
  return std::make_unique<CertificateStoreLinux>(absolutePath(root));
}

}  // namespace velum
