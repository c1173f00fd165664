#include <gtest/gtest.h>
#include <sys/xattr.h>

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

  Result sign(const std::string& key, const std::string& certificate,
              const Strings& more = {}) const {
    return execute(
        Strings{VELUM_SOURCE_DIR "/scripts/sign-code", "--key", folder_ / key} +
        Strings{"--certificate", folder_ / certificate, "--chain", folder_ / "step.pem"} + more +
        Strings{program_});
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
  const Result unsignedOne = verify(process.pid());
  EXPECT_EQ(unsignedOne.status, 1);
  EXPECT_EQ(unsignedOne.output, "");
  EXPECT_EQ(unsignedOne.errors, "velumctl: process " + std::to_string(process.pid()) +
                                    " does not count as signed by R8K2ZP5WQN; see the reason with "
                                    "--verbose\n");
  EXPECT_TRUE(
      contains(verify(process.pid(), {"--verbose"}).errors, "R8K2ZP5WQN: it is not signed"));

  const Result signing = sign("team.key", "team.pem");
  EXPECT_EQ(signing.status, 0);
  EXPECT_EQ(signing.output, program_ + ": signed by R8K2ZP5WQN\n");
  const Result signedOne = verify(process.pid(), {"--team", team, "--strict"});
  EXPECT_EQ(signedOne.status, 0) << signedOne.errors;
  EXPECT_TRUE(contains(signedOne.output, "is signed by R8K2ZP5WQN"));

  const std::string start = "{\"pid\":" + std::to_string(process.pid());
  EXPECT_EQ(verify(process.pid(), {"--json"}).output,
            start + ",\"team\":\"R8K2ZP5WQN\",\"valid\":true,\"reason\":null}\n");
  const Result other = verify(process.pid(), {"--team", "x\xFF", "--json"});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.output,
            start +
                ",\"team\":\"x\uFFFD\",\"valid\":false,\"reason\":\"it is signed by another "
                "team\"}\n");
  // Nobody here has made the tests' authority one of the machine's.
  EXPECT_EQ(run({"verify-peer", std::to_string(process.pid()), "--team", team}).status, 1);
  for (const Strings& wrong : {Strings{"verify-peer"}, Strings{"verify-peer", "1"},
                               Strings{"verify-peer", "0", "--team", team},
                               Strings{"verify-peer", "1", "--team", team, "--max-size", "-5"},
                               Strings{"verify-peer", "one", "--team", team}}) {
    EXPECT_EQ(run(wrong).status, 2);
  }
}

TEST_F(VelumctlVerifyPeer, SigningAgainReplacesTheOtherKindOfSignature) {
  const RunningProgram process = RunningProgram::piped({program_, "600"});
  if (::setxattr(program_.c_str(), "user.velum.signature", "stale", 5, 0) != 0) {
    GTEST_SKIP() << "no extended attributes here";
  }
  EXPECT_EQ(sign("team.key", "team.pem").status, 0);
  EXPECT_EQ(verify(process.pid()).status, 0);
  fs::remove(program_ + ".p7s");
  const Result signing = sign("team.key", "team.pem", {"--attribute"});
  EXPECT_EQ(signing.status, 0) << signing.errors;
  EXPECT_FALSE(fs::exists(program_ + ".p7s"));
  EXPECT_EQ(verify(process.pid()).status, 0);
}

TEST_F(VelumctlVerifyPeer, CertificatesThatWouldNeverCountSignNothing) {
  addIdentity("none", makeIdentity({}, &step_));
  addIdentity("two", makeIdentity({.units = {team, team}}, &step_));
  addIdentity("mail",
              makeIdentity({.units = {team}, .extendedKeyUsage = "emailProtection"}, &step_));
  addIdentity("alone", makeIdentity({.units = {team}}));
  addIdentity("weak", makeIdentity({.units = {team}, .rsaBits = 1024}, &step_));
  addIdentity("old", makeIdentity({.units = {team}, .digest = EVP_sha1()}, &step_));
  addIdentity("cipher", makeIdentity({.units = {team}, .keyUsage = "keyEncipherment"}, &step_));
  addIdentity("edwards", makeIdentity({.units = {team}, .isEd25519 = true}, &step_));
  addIdentity("other", makeIdentity({.units = {team}}, &root_));
  struct Case {
    const char* key;
    const char* certificate;
    const char* expected;
  };
  for (const Case& one :
       {Case{"none.key", "none.pem", "names 0 organisational units"},
        Case{"two.key", "two.pem", "names 2 organisational units"},
        Case{"mail.key", "mail.pem", "not for code signing"},
        Case{"alone.key", "alone.pem", "self-signed"}, Case{"weak.key", "weak.pem", "key too weak"},
        Case{"old.key", "old.pem", "weak digest"},
        Case{"cipher.key", "cipher.pem", "not for signatures"},
        Case{"edwards.key", "edwards.pem", "a key of the kind ED25519"},
        Case{"other.key", "other.pem", "would not count with"},
        Case{"team.key", "team.key", "can't be read as a certificate"},
        Case{"missing.key", "team.pem", "was not signed"},
        Case{"two.key", "team.pem", "was not signed"}}) {
    const Result signing = sign(one.key, one.certificate);
    EXPECT_EQ(signing.status, 1);
    EXPECT_TRUE(contains(signing.errors, one.expected)) << signing.errors;
    for (const auto& entry : fs::directory_iterator(folder_.path())) {
      EXPECT_FALSE(entry.path().string().starts_with(program_ + ".")) << entry.path();
    }
  }
  EXPECT_EQ(sign("team.key", "team.pem", {"--unknown"}).status, 2);
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
