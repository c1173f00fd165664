#include "Velum/Platform/Linux/CodeIdentity/CodeIdentityLinux.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <memory>
#include <utility>

#include "Velum/Base/LazyValue.h"
#include "Velum/Platform/Linux/CodeIdentity/CodeRefused.h"
#include "Velum/Platform/Linux/CodeIdentity/CodeSignature.h"
#include "Velum/Platform/Linux/CodeIdentity/PinnedProgram.h"

namespace velum {
namespace {

// A check may still run on some thread while the program ends, and the library would be torn down
// under it. What it holds goes with the process.
[[maybe_unused]] const bool isKeptUntilTheEnd =
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

/// Leaves the thread's queue of errors to whoever else uses the library.
class OwnErrors {
 public:
  OwnErrors() noexcept { ERR_set_mark(); }
  OwnErrors(const OwnErrors&) = delete;
  OwnErrors& operator=(const OwnErrors&) = delete;
  ~OwnErrors() { ERR_pop_to_mark(); }
};

}  // namespace

CodeIdentity& CodeIdentity::shared() {
  static constinit LazyStatic<std::unique_ptr<CodeIdentity>> instance;
  return *instance.get([] { return trusting(CodeIdentityLinux::machineRoots); });
}

std::unique_ptr<CodeIdentity> CodeIdentity::trusting(std::string rootsFolder) {
  return std::make_unique<CodeIdentityLinux>(std::move(rootsFolder));
}

CodeVerdict CodeIdentityLinux::check(int pid, const std::string& teamIdentifier,
                                     const CodeCheckOptions& options) try {
  if (teamIdentifier.empty()) return {.valid = false, .reason = "no team identifier was given"};
  const OwnErrors errors;
  const PinnedProgram program(pid, options.maximumSize);
  const CodeSignature signature(program.signature());
  signature.requireTrusted(roots_.load().get(), options);
  signature.requireTeam(teamIdentifier);
  signature.requireContent(program.digest(signature.digestAlgorithm()));
  program.requireUnchanged();
  return {.valid = true, .reason = {}};
} catch (const CodeRefused& refusal) {
  return {.valid = false, .reason = refusal.what()};
}

}  // namespace velum
