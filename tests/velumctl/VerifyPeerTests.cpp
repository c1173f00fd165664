#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/support/CodeSigning.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* team = "R8K2ZP5WQN";

// A maker signs with the script, and looks at the result with velumctl.
class VelumctlVerifyPeer : public VelumctlTest {
 protected:
  VelumctlVerifyPeer() {
    writePrivate("roots/authority.pem", root_.pem());
    writePrivate("step.pem", step_.pem());
    ::chmod((folder_ / "roots").c_str(), 0755);
    addIdentity("team", makeIdentity({.units = {team}}, &step_));
    fs::copy_file("/bin/sleep", program_);
  }

  void writePrivate(const std::string& name, const std::string& text) const {
    writeFile(folder_ / name, text);
    ::chmod((folder_ / name).c_str(), 0600);
  }
  void addIdentity(const std::string& name, const SigningIdentity& identity) const {
    writePrivate(name + ".pem", identity.pem());
    writePrivate(name + ".key", identity.keyPem());
  }

  /// With the key NAME.key and the certificate NAME.pem.
  Result sign(const std::string& name, const Strings& more = {}) const {
    return execute(Strings{VELUM_SOURCE_DIR "/scripts/sign-code"} +
                   Strings{"--key", folder_ / (name + ".key")} +
                   Strings{"--certificate", folder_ / (name + ".pem")} +
                   Strings{"--chain", folder_ / "step.pem"} + more + Strings{program_});
  }

  Result verify(int pid, Strings more = {}) const {
    if (more.empty() || more[0] != "--team") more.insert(more.begin(), {"--team", team});
    return run(Strings{"verify-peer", std::to_string(pid), "--roots", folder_ / "roots"} + more);
  }

  static bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  const SigningIdentity root_ = makeIdentity({.name = "Root", .isAuthority = true});
  const SigningIdentity step_ = makeIdentity({.name = "Step", .isAuthority = true}, &root_);
  const std::string program_ = folder_ / "vpn daemon";
};

TEST_F(VelumctlVerifyPeer, TellsMakersWhetherTheirProgramCounts) {
  const RunningProgram process = RunningProgram::piped({program_, "600"});
  const std::string start = "{\"pid\":" + std::to_string(process.pid());
  const Result unsignedOne = verify(process.pid());
  EXPECT_EQ(unsignedOne.status, 1);
  EXPECT_EQ(unsignedOne.output, "");
  EXPECT_EQ(unsignedOne.errors, "velumctl: process " + std::to_string(process.pid()) +
                                    " does not count as signed by R8K2ZP5WQN; see the reason with "
                                    "--verbose\n");
  EXPECT_TRUE(
      contains(verify(process.pid(), {"--verbose"}).errors, "R8K2ZP5WQN: it is not signed"));
  EXPECT_EQ(sign("team").output, program_ + ": signed by R8K2ZP5WQN\n");
  EXPECT_TRUE(contains(verify(process.pid(), {"--strict"}).output, "is signed by R8K2ZP5WQN"));
  EXPECT_EQ(verify(process.pid(), {"--json"}).output,
            start + ",\"team\":\"R8K2ZP5WQN\",\"valid\":true,\"reason\":null}\n");
  const Result other = verify(process.pid(), {"--team", "x\xFF", "--json"});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.output, start +
                              ",\"team\":\"x\uFFFD\",\"valid\":false,\"reason\":\"it is "
                              "signed by another team\"}\n");
  // Nobody here has made the tests' authority one of the machine's.
  EXPECT_EQ(run({"verify-peer", std::to_string(process.pid()), "--team", team}).status, 1);
  for (const Strings& wrong : {Strings{},
                               {"1"},
                               {"0", "--team", team},
                               {"one", "--team", team},
                               {"1", "--team", team, "--max-size", "-5"}}) {
    EXPECT_EQ(run(Strings{"verify-peer"} + wrong).status, 2);
  }
}

TEST_F(VelumctlVerifyPeer, SigningAgainReplacesTheOtherKindOfSignature) {
  const RunningProgram process = RunningProgram::piped({program_, "600"});
  addIdentity("another", makeIdentity({.units = {"another team"}}, &step_));
  const Result inAttribute = sign("another", {"--attribute"});
  if (contains(inAttribute.errors, "can't hold the attribute")) GTEST_SKIP() << inAttribute.errors;
  EXPECT_EQ(verify(process.pid()).status, 1);
  EXPECT_EQ(sign("team").status, 0);
  EXPECT_EQ(verify(process.pid()).status, 0);
  fs::remove(program_ + ".p7s");
  EXPECT_EQ(sign("team", {"--attribute"}).errors, "");
  EXPECT_FALSE(fs::exists(program_ + ".p7s"));
  EXPECT_EQ(verify(process.pid()).status, 0);
}

TEST_F(VelumctlVerifyPeer, CertificatesThatWouldNeverCountSignNothing) {
  using Identity = SigningIdentity;
  const Identity two = makeIdentity({.units = {team, team}}, &step_);
  Identity stolen = two;
  stolen.certificate = makeIdentity({.units = {team}}, &step_).certificate;
  for (const auto& [identity, expected] :
       {std::pair<Identity, const char*>(two, "names 2 organisational units"),
        {stolen, "was not signed"},
        {makeIdentity({}, &step_), "names 0 organisational units"},
        {makeIdentity({.units = {team}, .extendedKeyUsage = "emailProtection"}, &step_),
         "not for code signing"},
        {makeIdentity({.units = {team}}), "self-signed"},
        {makeIdentity({.units = {team}, .rsaBits = 1024}, &step_), "key too weak"},
        {makeIdentity({.units = {team}, .digest = EVP_sha1()}, &step_), "weak digest"},
        {makeIdentity({.units = {team}, .keyUsage = "keyEncipherment"}, &step_),
         "not for signatures"},
        {makeIdentity({.units = {team}, .isEd25519 = true}, &step_), "a key of the kind ED25519"},
        {makeIdentity({.units = {team}}, &root_), "would not count with"}}) {
    addIdentity("bad", identity);
    const Result signing = sign("bad");
    EXPECT_EQ(signing.status, 1);
    EXPECT_TRUE(contains(signing.errors, expected)) << signing.errors;
    for (const auto& entry : fs::directory_iterator(folder_.path())) {
      EXPECT_FALSE(entry.path().string().starts_with(program_ + ".")) << entry.path();
    }
  }
  writePrivate("no.pem", "no certificate");
  EXPECT_TRUE(contains(sign("no").errors, "can't be read as a certificate"));
  EXPECT_EQ(sign("team", {"--unknown"}).status, 2);
  // Neither its name nor a link in the place of what is written first fools the tools.
  const std::string script = "cp /bin/sleep ./-n && ln -s nowhere ./-n.p7s.new && exec '" +
                             std::string(VELUM_SOURCE_DIR "/scripts/sign-code") +
                             "' --key team.key --certificate team.pem --chain step.pem -- -n";
  EXPECT_EQ(execute({"/bin/sh", "-c", "cd '" + folder_.path() + "' && " + script}).status, 0);
  EXPECT_TRUE(fs::exists(folder_ / "-n.p7s"));
  EXPECT_FALSE(fs::exists(folder_ / "nowhere"));
}

}  // namespace
}  // namespace velum::test
