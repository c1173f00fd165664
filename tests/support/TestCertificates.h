#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Velum/Platform/CertificateStore.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {

/// Runs a shell's program; its exit status, and what it wrote to both streams.
struct ShellResult {
  int status;
  std::string output;
};
inline ShellResult shell(const std::string& script) {
  const TemporaryFolder folder;
  const auto status =
      exitStatus(startShell("{ " + script + "\n} >'" + folder.path() + "/out' 2>&1 </dev/null"));
  return {status.value_or(-1), readFile(folder / "out")};
}

/// Certificates that openssl(1) makes, with their keys, in a folder of their own: NAME.pem and
/// NAME.key. Valid for two days.
class TestCertificates {
 public:
  /// An authority; `subject` as "/O=Acme/CN=Root".
  SecCertificate authority(const std::string& name, const std::string& subject) const {
    return make(name, subject, "-addext basicConstraints=critical,CA:true");
  }
  /// For servers on 127.0.0.1, issued by the authority `issuer`, by itself without one.
  SecCertificate server(const std::string& name, const std::string& issuer = {}) const {
    const std::string signer =
        issuer.empty() ? "" : fmt::format("-CA '{0}.pem' -CAkey '{0}.key'", folder_ / issuer);
    return make(name, "/CN=server",
                "-addext basicConstraints=critical,CA:false "
                "-addext subjectAltName=IP:127.0.0.1 " +
                    signer);
  }

  std::string pem(const std::string& name) const { return folder_ / (name + ".pem"); }
  std::string key(const std::string& name) const { return folder_ / (name + ".key"); }

 private:
  SecCertificate make(const std::string& name, const std::string& subject,
                      const std::string& options) const {
    const auto made = shell(fmt::format(
        "exec openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -utf8 "
        "-subj '{}' -keyout '{}' -out '{}' {}",
        subject, key(name), pem(name), options));
    auto certificates = SecCertificate::fromFile(byteView(readFile(pem(name))));
    if (made.status != 0 || certificates.size() != 1) throw std::runtime_error(made.output);
    return certificates.front();
  }

  TemporaryFolder folder_;
};

}  // namespace velum::test
