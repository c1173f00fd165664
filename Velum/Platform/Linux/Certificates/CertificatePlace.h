#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <exception>
#include <string>
#include <utility>

#include "Velum/Base/SystemError.h"
#include "Velum/Platform/CertificateStore.h"
#include "Velum/Platform/Linux/Certificates/LockHolder.h"

namespace velum {

/// Ends an operation on certificates with this status.
class CertificateFailure : public std::exception {
 public:
  explicit CertificateFailure(SecretStatus number, std::string detail = {})
      : status_{number, std::move(detail)} {}
  const CertificateStatus& status() const noexcept { return status_; }
  const char* what() const noexcept override { return "certificate store"; }

 private:
  CertificateStatus status_;
};

/// Calls `work`, which throws CertificateFailure or SystemError when it fails.
template <class Work>
CertificateStatus statusOf(const Work& work) {
  try {
    work();
    return {};
  } catch (const CertificateFailure& failure) {
    return failure.status();
  } catch (const SystemError& error) {
    return {errSecErrnoBase + error.code(), error.what()};
  }
}

/// The failure of who waited for a lock that somebody else holds.
inline CertificateFailure heldElsewhere(std::string_view what, const std::string& lock) {
  return CertificateFailure(errSecErrnoBase + EBUSY,
                            fmt::format("{} in use by {}; try again when it has finished.", what,
                                        holderOfLock(lock).value_or("another program")));
}

// Neither kind of place knows labels, only names that no two certificates may share. The label
// becomes unique by the certificate's fingerprint behind it; a name that does not end so was given
// by somebody else and is a label itself.

/// The name of a certificate in a place: `label`, `separator` and the fingerprint.
inline std::string uniqueName(std::string_view label, char separator,
                              const SecCertificate& certificate) {
  return std::string(label) + separator + certificate.fingerprint();
}

/// The label in such a name.
inline std::string_view labelOf(std::string_view name, char separator,
                                const SecCertificate& certificate) {
  const std::string ending = uniqueName("", separator, certificate);
  return name.ends_with(ending) ? name.substr(0, name.size() - ending.size()) : name;
}

}  // namespace velum
