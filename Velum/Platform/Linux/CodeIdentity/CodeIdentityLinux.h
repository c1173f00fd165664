#pragma once

#include <string>

#include "Velum/Platform/CodeIdentity.h"
#include "Velum/Platform/Linux/CodeIdentity/SigningRoots.h"

namespace velum {

/// Checks programs against the authorities in one folder. A verdict is about the moment it is
/// given: the process may start another program right after.
///
/// The executable is read through the process itself, never through a path that could be replaced;
/// its signature is a detached CMS signature (DER), in its extended attribute user.velum.signature
/// or, where there is none, in the file NAME.p7s beside it.
class CodeIdentityLinux final : public CodeIdentity {
 public:
  static constexpr const char* machineRoots = "/etc/velum/code-signing.d";

  /// Trusts the roots that are in `rootsFolder` at the time of each check; see SigningRoots.
  explicit CodeIdentityLinux(std::string rootsFolder) : roots_(std::move(rootsFolder)) {}

  CodeVerdict check(int pid, const std::string& teamIdentifier,
                    const CodeCheckOptions& options) override;

 private:
  SigningRoots roots_;
};

}  // namespace velum
