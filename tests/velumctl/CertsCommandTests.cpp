#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/Environment.h"
#include "tests/support/TestCertificates.h"
#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

class VelumctlCerts : public VelumctlTest {
 protected:
  Result certs(const Strings& arguments, const std::string& input = {}) const {
    return run(Strings{"certs"} + arguments, input);
  }
  std::string onlyErrors(const Strings& arguments, int status) const {
    const Result result = certs(arguments);
    EXPECT_EQ(result.status, status) << result.errors;
    EXPECT_EQ(result.output, "");
    return result.errors;
  }

  ScopedVariable home_{"HOME", folder_.path()};
  TestCertificates certificates_;
};

TEST_F(VelumctlCerts, GoFromAddedOverTrustedToRemoved) {
  const auto root = certificates_.authority("root", "/CN=Root");
  const std::string pem = certificates_.pem("root");
  EXPECT_EQ(certs({"list"}).output, "");
  EXPECT_NE(onlyErrors({"trust", pem}, 1).find("certs list"), std::string::npos);
  EXPECT_EQ(onlyErrors({"add", pem, "--name", "Corp CA"}, 0), "");
  EXPECT_NE(onlyErrors({"add", pem, "--name", "again"}, 1).find("already exists"),
            std::string::npos);

  const Result before = certs({"check", pem});
  EXPECT_EQ(before.status, 1);
  EXPECT_EQ(before.output, "nothing set\n");
  EXPECT_EQ(onlyErrors({"trust", pem}, 0), "");
  EXPECT_EQ(certs({"list"}).output, "Corp CA\tRoot\talways\t" + root.fingerprint() + "\n");
  const auto items = nlohmann::json::parse(certs({"list", "--json"}).output);
  EXPECT_EQ(items, nlohmann::json::array({{{"label", "Corp CA"},
                                           {"subject", "Root"},
                                           {"sha256", root.fingerprint()},
                                           {"settings", nlohmann::json::array()}}}));
  const Result after = certs({"check", "-", "--json"}, readFile(pem));
  EXPECT_EQ(after.status, 0);
  EXPECT_EQ(after.output, "{\"trusted\":true,\"settings\":[]}\n");

  shell("certutil -M -n 'Corp CA " + root.fingerprint() + "' -t C,p, -d \"sql:$HOME/.pki/nssdb\"");
  const Result denied = certs({"check", pem});
  EXPECT_EQ(denied.output, "sslServer: root, SMIME: denied\n");
  EXPECT_EQ(denied.status, 1);
  EXPECT_EQ(onlyErrors({"remove", "Corp CA"}, 0), "");
  EXPECT_EQ(onlyErrors({"remove", "Corp CA"}, 1),
            "velumctl: the certificates can't be removed: The specified item could not be found in "
            "the keychain (-25300); see what is there with \"velumctl certs list\", and check "
            "--domain\n");
}

TEST_F(VelumctlCerts, OfTheMachineAreInTheChosenRoot) {
  const std::string root = folder_ / "image";
  writeFile(root + "/etc/ssl/certs/ca-certificates.crt",
            certificates_.authority("root", "/CN=Root").pem());
  const auto with = [&](const Strings& arguments) {
    return certs(arguments + Strings{"--domain", "admin", "--root", root});
  };
  EXPECT_EQ(with({"check", certificates_.pem("root")}).output, "always\n");
  writeFile(root + "/usr/local/share/ca-certificates/Corp CA.crt",
            readFile(certificates_.pem("root")));
  EXPECT_EQ(with({"list"}).output.find("Corp CA\tRoot\talways\t"), 0U);
}

TEST_F(VelumctlCerts, RefuseWhatMakesNoSense) {
  constexpr int usage = 2;
  onlyErrors({"list", "--domain", "dynamic"}, usage);
  onlyErrors({"list", "--root", folder_.path()}, usage);
  onlyErrors({"add", "file"}, usage);
  writeFile(folder_ / "text", "no certificate");
  EXPECT_EQ(
      onlyErrors({"check", folder_ / "text"}, 1),
      "velumctl: " + (folder_ / "text") + " holds no certificate; name a file in PEM or DER\n");
  const std::string pem = certificates_.authority("root", "/CN=Root").pem();
  writeFile(folder_ / "two", pem + pem);
  EXPECT_NE(onlyErrors({"trust", folder_ / "two"}, 1).find("2 certificates"), std::string::npos);
}

}  // namespace
}  // namespace velum::test
