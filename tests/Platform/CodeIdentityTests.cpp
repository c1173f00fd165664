#include "Velum/Platform/CodeIdentity.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <thread>
#include <vector>

#include "Velum/Platform/Linux/CodeRefusedLinux.h"
#include "Velum/Platform/Linux/PinnedProgramLinux.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/CodeSigning.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

constexpr const char* team = "R8K2ZP5WQN";
constexpr const char* sleeper = "/bin/sleep";

/// A process that runs `path`, a copy of the sleeper, until the test ends.
class Running {
 public:
  explicit Running(const std::string& path) {
    SpawnOptions options;
    options.executable = path;
    options.arguments = {"sleep", "600"};
    pid_ = spawn(options);
  }
  explicit Running(pid_t pid) : pid_(pid) {}
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() { end(); }

  pid_t pid() const { return pid_; }
  void kill() const { ::kill(pid_, SIGKILL); }
  void end() {
    if (ended_) return;
    ended_ = true;
    kill();
    retryInterrupted([&] { return ::waitpid(pid_, nullptr, 0); });
  }

 private:
  pid_t pid_ = -1;
  bool ended_ = false;
};

class CodeIdentityTest : public testing::Test {
 protected:
  CodeIdentityTest() {
    fs::create_directory(roots_);
    ::chmod(roots_.c_str(), 0755);
    addRoot("authority.pem", root().pem());
    fs::copy_file(sleeper, program_);
    ::chmod(program_.c_str(), 0755);
  }

  /// The authority of all tests.
  static const SigningIdentity& root() {
    static const SigningIdentity authority =
        makeIdentity({.name = "Authority", .units = {}, .isAuthority = true});
    return authority;
  }
  static const SigningIdentity& maker() {
    static const SigningIdentity identity = makeIdentity({.units = {team}}, &root());
    return identity;
  }
  static SigningIdentity makerWith(const CertificateOptions& options) {
    return makeIdentity(options, &root());
  }

  void addRoot(const std::string& name, const std::string& pem) const {
    writeFile(roots_ + "/" + name, pem);
    ::chmod((roots_ + "/" + name).c_str(), 0644);
  }

  std::string signatureBy(const SigningIdentity& signer) const {
    return makeSignature(readFile(program_), {&signer});
  }
  void signBeside(const std::string& signature) const { writeFile(program_ + ".p7s", signature); }
  bool signInAttribute(const std::string& signature) const {
    return ::setxattr(program_.c_str(), PinnedProgram::signatureAttribute, signature.data(),
                      signature.size(), 0) == 0;
  }

  /// "valid", or why not.
  std::string verdict(int pid, const std::string& by = team, CodeCheckOptions options = {}) const {
    const CodeVerdict result = identity_->check(pid, by, options);
    EXPECT_EQ(result.valid, result.reason.empty());
    return result.valid ? "valid" : result.reason;
  }
  std::string verdictOn(const Running& process, const std::string& signature) const {
    signBeside(signature);
    return verdict(process.pid());
  }

  /// Waits until the roots are old enough to be kept between checks, as those of a machine are.
  bool areRootsKept() const {
    return eventually([file = roots_ + "/authority.pem"] {
      struct stat status {};
      return ::stat(file.c_str(), &status) == 0 && status.st_ctim.tv_sec < std::time(nullptr) - 2;
    });
  }

  static void expectReason(const std::string& verdict, const std::string& part,
                           const std::string& what = {}) {
    EXPECT_NE(verdict.find(part), std::string::npos) << what << ": " << verdict;
  }

  TemporaryFolder folder_;
  const std::string roots_ = folder_ / "roots";
  const std::string program_ = folder_ / "program";
  const std::unique_ptr<CodeIdentity> identity_ = CodeIdentity::trusting(roots_);
};

TEST_F(CodeIdentityTest, AcceptsAProgramItsTeamSigned) {
  const Running process(program_);
  expectReason(verdict(process.pid()), "not signed");
  signBeside(signatureBy(maker()));
  EXPECT_EQ(verdict(process.pid()), "valid");

  for (const EVP_MD* digest : {EVP_sha384(), EVP_sha512()}) {
    EXPECT_EQ(verdictOn(process, makeSignature(readFile(program_), {&maker()}, digest)), "valid");
  }
  const auto other = makerWith({.units = {team}, .rsaBits = 2048});
  EXPECT_EQ(verdictOn(process, signatureBy(other)), "valid");
}

TEST_F(CodeIdentityTest, PrefersTheSignatureThatGoesWithTheFile) {
  const Running process(program_);
  if (!signInAttribute(signatureBy(maker()))) GTEST_SKIP() << "no extended attributes here";
  EXPECT_EQ(verdict(process.pid()), "valid");
  signBeside("nonsense");
  EXPECT_EQ(verdict(process.pid()), "valid");
  fs::create_directory(folder_ / "moved");
  fs::rename(program_, folder_ / "moved/program");
  EXPECT_EQ(verdict(process.pid()), "valid");
  fs::rename(folder_ / "moved/program", program_);

  // A damaged one is not made up for by another.
  signBeside(signatureBy(maker()));
  ASSERT_TRUE(signInAttribute(""));
  expectReason(verdict(process.pid()), "damaged");
  ASSERT_TRUE(signInAttribute("nonsense"));
  expectReason(verdict(process.pid()), "damaged");
}

TEST_F(CodeIdentityTest, ComparesTheTeamByteForByte) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  const std::string name = team;
  for (const std::string& other : {name + " ", " " + name, name.substr(1), name + name,
                                   "r8k2zp5wqn"s, "*"s, "\"" + name + "\"", name + "\" or true",
                                   name + '\0', name + std::string("\0x", 2), "X\nOU="s}) {
    expectReason(verdict(process.pid(), other), "another team", other);
  }
  expectReason(verdict(process.pid(), ""), "no team");

  struct Case {
    std::vector<std::string> units;
    int type;
    const char* expected;
  };
  const std::vector<Case> cases{
      {{"X" + name}, V_ASN1_UTF8STRING, "another team"},
      {{name, name}, V_ASN1_UTF8STRING, "more than one"},
      {{"Other", name}, V_ASN1_UTF8STRING, "more than one"},
      {{}, V_ASN1_UTF8STRING, "no organisational unit"},
      {{""}, V_ASN1_UTF8STRING, "another team"},
      {{name + std::string("\0.example", 9)}, V_ASN1_UTF8STRING, "another team"},
      {{name}, V_ASN1_PRINTABLESTRING, "valid"},
      {{name}, V_ASN1_BMPSTRING, "another team"},  // other characters altogether
      {{std::string("\0R\0008\0K\0002\0Z\0P\0005\0W\0Q\0N", 20)}, V_ASN1_BMPSTRING, "valid"},
  };
  for (const Case& one : cases) {
    const auto signer = makerWith({.units = one.units, .unitType = one.type});
    expectReason(verdictOn(process, signatureBy(signer)), one.expected);
  }
  signBeside(signatureBy(makerWith({.units = {name + std::string(1, '\0')}})));
  expectReason(verdict(process.pid(), name + std::string(1, '\0')), "another team");
  signBeside(signatureBy(makerWith({.units = {"Zoë"}})));
  EXPECT_EQ(verdict(process.pid(), "Zoë"), "valid");
}

TEST_F(CodeIdentityTest, RefusesWhatIsNoSoundSignatureOfThisContent) {
  const Running process(program_);
  const std::string content = readFile(program_);
  const std::string sound = signatureBy(maker());
  const auto signedWith = [&](const EVP_MD* digest, unsigned flags) {
    return makeSignature(content, {&maker()}, digest, flags);
  };
  const auto second = makerWith({.name = "Second", .units = {team}, .rsaBits = 2048});
  struct Case {
    std::string signature;
    const char* expected;
  };
  const std::vector<Case> cases{
      {"", "damaged"},
      {"no signature at all", "damaged"},
      {sound.substr(0, sound.size() - 1), "damaged"},
      {sound.substr(0, sound.size() / 2), "damaged"},
      {sound + '\0', "bytes follow"},
      {sound + sound, "bytes follow"},
      {maker().pem(), "damaged"},
      {makeSignature(content + "x", {&maker()}), "content differs"},
      {signedWith(EVP_sha256(), 0), "not detached"},
      {signedWith(EVP_sha1(), CMS_DETACHED), "digest"},
      {makeSignature(content, {&second}, EVP_md5()), "digest"},
      {signedWith(EVP_sha256(), CMS_DETACHED | CMS_NOATTR), "not made with the key"},
      {signedWith(EVP_sha256(), CMS_DETACHED | CMS_NOCERTS), "lacks the signer's certificate"},
      {makeSignature(content, {&maker(), &second}), "exactly one signer"},
      {std::string((1U << 20U) + 1, '0'), "File too large"},
  };
  for (const Case& one : cases) {
    expectReason(verdictOn(process, one.signature), one.expected,
                 std::to_string(&one - cases.data()));
  }
  // The last byte is one of the key's signature over everything else.
  std::string flipped = sound;
  flipped.back() = static_cast<char>(flipped.back() ^ 1);
  EXPECT_NE(verdictOn(process, flipped), "valid");
  // Another key, in the maker's name and with the maker's certificate.
  SigningIdentity thief{second.key, {X509_dup(maker().certificate.get()), X509_free}, {}};
  ASSERT_EQ(X509_set_pubkey(thief.certificate.get(), thief.key.get()), 1);
  thief.chain.push_back(maker().certificate);
  expectReason(verdictOn(process, makeSignature(content, {&thief}, EVP_sha256(),
                                                CMS_DETACHED | CMS_NOCERTS)),
               "not made with the key");
  EXPECT_EQ(verdictOn(process, sound), "valid");
}

TEST_F(CodeIdentityTest, TrustsOnlyChainsForCodeSigningThatEndInTheRoots) {
  const Running process(program_);
  const auto stranger = makeIdentity({.name = "Authority", .isAuthority = true});
  const auto selfSigned = makeIdentity({.units = {team}});
  addRoot("self-signed.pem", selfSigned.pem());
  const auto step = [](CertificateOptions options) {
    options.name = "Step";
    return makeIdentity(options, &root());
  };
  const auto below = [](const SigningIdentity& issuer) {
    return makeIdentity({.name = "Below", .units = {team}}, &issuer);
  };
  SigningIdentity withoutStep = below(step({.isAuthority = true}));
  withoutStep.chain.clear();
  SigningIdentity deep = root();
  for (int level = 0; level < 7; ++level) {
    deep = makeIdentity({.name = "Level " + std::to_string(level), .isAuthority = true}, &deep);
  }

  struct Case {
    SigningIdentity signer;
    const char* expected;
  };
  const std::vector<Case> cases{
      {maker(), "valid"},
      {below(step({.isAuthority = true})), "valid"},
      {below(step({.isAuthority = true, .extendedKeyUsage = "codeSigning"})), "valid"},
      {below(step({.isAuthority = true, .extendedKeyUsage = "serverAuth"})), "not one for signing"},
      {below(step({.units = {team}})), "not trusted: invalid CA"},
      {below(maker()), "not trusted: invalid CA"},
      {withoutStep, "not trusted"},
      {makeIdentity({.units = {team}}, &deep), "chain too long"},
      {makeIdentity({.units = {team}}, &stranger), "not trusted"},
      {makeIdentity({.name = "Stranger", .units = {team}}), "not trusted: self"},
      {selfSigned, "certificate is self-signed"},
      {makerWith({.units = {team}, .extendedKeyUsage = ""}), "not for signing code"},
      {makerWith({.units = {team}, .extendedKeyUsage = "emailProtection"}), "not for signing code"},
      {makerWith({.units = {team}, .extendedKeyUsage = "anyExtendedKeyUsage"}), "not for signing"},
      {makerWith({.units = {team}, .keyUsage = "keyEncipherment"}), "not for signatures"},
      {makerWith({.units = {team},
                  .isAuthority = true,
                  .keyUsage = "digitalSignature,keyCertSign",
                  .extendedKeyUsage = "codeSigning"}),
       "an authority's"},
      {makerWith({.units = {team}, .rsaBits = 1024}), "not trusted: EE certificate key too weak"},
      {makerWith({.units = {team}, .digest = EVP_sha1()}),
       "not trusted: CA signature digest algorithm too weak"},
  };
  for (const Case& one : cases) {
    expectReason(verdictOn(process, signatureBy(one.signer)), one.expected,
                 std::to_string(&one - cases.data()));
  }
}

TEST_F(CodeIdentityTest, LooksAtDatesOnlyWhenStrict) {
  const Running process(program_);
  constexpr long day = 86400;
  signBeside(signatureBy(makerWith({.units = {team}, .begin = -2 * day, .end = -day})));
  EXPECT_EQ(verdict(process.pid()), "valid");
  expectReason(verdict(process.pid(), team, {.strictValidity = true}), "has expired");
  signBeside(signatureBy(makerWith({.units = {team}, .begin = day, .end = 2 * day})));
  EXPECT_EQ(verdict(process.pid()), "valid");
  expectReason(verdict(process.pid(), team, {.strictValidity = true}), "not yet valid");
  signBeside(signatureBy(maker()));
  EXPECT_EQ(verdict(process.pid(), team, {.strictValidity = true}), "valid");

  const auto oldRoot =
      makeIdentity({.name = "Old", .isAuthority = true, .begin = -2 * day, .end = -day});
  addRoot("old.pem", oldRoot.pem());
  signBeside(signatureBy(makeIdentity({.units = {team}}, &oldRoot)));
  EXPECT_EQ(verdict(process.pid()), "valid");
  expectReason(verdict(process.pid(), team, {.strictValidity = true}), "has expired");
}

TEST_F(CodeIdentityTest, RefusesRootsThatOthersMayChange) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  const std::string file = roots_ + "/authority.pem";
  for (const mode_t mode : {0664U, 0646U, 0666U}) {
    ::chmod(file.c_str(), mode);
    expectReason(verdict(process.pid()), "authority.pem may be written by other users");
  }
  ::chmod(file.c_str(), 0444);
  EXPECT_EQ(verdict(process.pid()), "valid");
  for (const mode_t mode : {0775U, 0757U, 01777U}) {
    ::chmod(roots_.c_str(), mode);
    expectReason(verdict(process.pid()), "roots may be written by other users");
  }
  ::chmod(roots_.c_str(), 0755);
  EXPECT_EQ(verdict(process.pid()), "valid");
  if (::geteuid() == 0) {
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(::chown(file.c_str(), nobody, nobody), 0);
    expectReason(verdict(process.pid()), "authority.pem may be written by other users");
    ASSERT_EQ(::chown(file.c_str(), 0, 0), 0);
    ASSERT_EQ(::chown(roots_.c_str(), nobody, nobody), 0);
    expectReason(verdict(process.pid()), "roots may be written by other users");
    ASSERT_EQ(::chown(roots_.c_str(), 0, 0), 0);
  }
  addRoot("README", "no certificate");
  addRoot(".hidden.pem", "no certificate");
  EXPECT_EQ(verdict(process.pid()), "valid");
}

TEST_F(CodeIdentityTest, RefusesRootsThatAreNotWhatTheyShouldBe) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  const std::string pem = root().pem();
  const std::string added = roots_ + "/b.pem";
  struct Case {
    std::string text;
    const char* expected;
  };
  for (const Case& one :
       {Case{"", "holds no certificate"}, Case{"words", "holds no certificate"},
        Case{pem.substr(0, pem.size() / 2), "is damaged"},
        Case{pem + "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", "is damaged"},
        Case{std::string((1U << 20U) + 1, ' '), "can't be read: File too large"}}) {
    addRoot("b.pem", one.text);
    expectReason(verdict(process.pid()), "b.pem "s + one.expected);
  }
  fs::remove(added);
  fs::create_symlink("authority.pem", added);
  expectReason(verdict(process.pid()), "b.pem is a symbolic link");
  fs::remove(added);
  ASSERT_EQ(::mkfifo(added.c_str(), 0600), 0);
  expectReason(verdict(process.pid()), "b.pem can't be read");
  fs::remove(added);

  fs::rename(roots_, folder_ / "elsewhere");
  expectReason(verdict(process.pid()), "roots is missing");
  fs::create_directory_symlink("elsewhere", roots_);
  expectReason(verdict(process.pid()), "symbolic link");
  fs::remove(roots_);
  fs::create_directory(roots_);
  expectReason(verdict(process.pid()), "holds no file");
  for (int number = 0; number <= 1000; ++number) addRoot(std::to_string(number) + ".pem", "");
  expectReason(verdict(process.pid()), "more than 1000");
}

TEST_F(CodeIdentityTest, NoticesChangesOfTheRootsAtOnce) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  const std::string file = roots_ + "/authority.pem";
  ASSERT_TRUE(areRootsKept());
  EXPECT_EQ(verdict(process.pid()), "valid");
  EXPECT_EQ(verdict(process.pid()), "valid");
  fs::rename(file, roots_ + "/authority.off");
  expectReason(verdict(process.pid()), "holds no file");
  fs::rename(roots_ + "/authority.off", file);
  EXPECT_EQ(verdict(process.pid()), "valid");

  // As long as the one before, and with its times.
  const auto time = fs::last_write_time(file);
  const auto stranger = makeIdentity({.name = "Authority", .isAuthority = true}).pem();
  addRoot("authority.pem", stranger);
  fs::last_write_time(file, time);
  expectReason(verdict(process.pid()), "not trusted");
}

TEST_F(CodeIdentityTest, RefusesProcessesWithoutAProgramOfTheirOwn) {
  signBeside(signatureBy(maker()));
  for (const int pid : {0, -1, static_cast<int>(noProcess)}) {
    expectReason(verdict(pid), "no such process");
  }
  Running process(program_);
  EXPECT_EQ(verdict(process.pid()), "valid");
  process.kill();
  ASSERT_TRUE(hasEnded(process.pid()));  // and is a zombie
  expectReason(verdict(process.pid()), "has ended");
  process.end();
  expectReason(verdict(process.pid()), "no such process");

  // A script is run by a program that nobody of the team has signed, whatever stands beside it.
  writeFile(folder_ / "script", "#!/bin/sh\nread line\n");
  ::chmod((folder_ / "script").c_str(), 0755);
  writeFile(folder_ / "script.p7s", makeSignature(readFile(folder_ / "script"), {&maker()}));
  const Pipe input;
  SpawnOptions options;
  options.executable = folder_ / "script";
  options.arguments = {"script"};
  options.standardStreams[0] = input.reader.get();
  const Running script(spawn(options));
  expectReason(verdict(script.pid()), "not signed");

  if (::geteuid() == 0 && fs::exists("/proc/2/comm") && readFile("/proc/2/cmdline").empty()) {
    expectReason(verdict(2), "runs no program");
  }
}

TEST_F(CodeIdentityTest, RefusesDeletedAndReplacedPrograms) {
  signBeside(signatureBy(maker()));
  {
    const Running process(program_);
    fs::copy_file(program_, folder_ / "new");
    fs::rename(folder_ / "new", program_);  // the same content, signed as well
    expectReason(verdict(process.pid()), "deleted or replaced");
  }
  {
    const Running process(program_);
    fs::create_hard_link(program_, folder_ / "other");
    fs::remove(program_);
    expectReason(verdict(process.pid()), "deleted or replaced");
    fs::rename(folder_ / "other", program_);
  }
  {
    const std::string odd = folder_ / "program (deleted)";
    fs::copy_file(program_, odd);
    writeFile(odd + ".p7s", signatureBy(maker()));
    const Running process(odd);
    EXPECT_EQ(verdict(process.pid()), "valid");
  }
  {
    const UniqueFd memory(::memfd_create("program", MFD_CLOEXEC));
    const std::string content = readFile(program_);
    ASSERT_EQ(::write(memory.get(), content.data(), content.size()),
              static_cast<ssize_t>(content.size()));
    const Running process("/proc/" + std::to_string(::getpid()) + "/fd/" +
                          std::to_string(memory.get()));
    expectReason(verdict(process.pid()), "deleted or replaced");
  }
}

TEST_F(CodeIdentityTest, FollowsNoLinkToASignatureAndWaitsForNoFifo) {
  const Running process(program_);
  const std::string beside = program_ + ".p7s";
  writeFile(folder_ / "signature", signatureBy(maker()));
  fs::create_symlink(folder_ / "signature", beside);
  expectReason(verdict(process.pid()), "can't be read");
  fs::remove(beside);
  ASSERT_EQ(::mkfifo(beside.c_str(), 0600), 0);
  expectReason(verdict(process.pid()), "can't be read");
  fs::remove(beside);
  fs::create_directory(beside);
  expectReason(verdict(process.pid()), "can't be read");
}

TEST_F(CodeIdentityTest, NoticesWhatChangesWhileItLooks) {
  signBeside(signatureBy(maker()));
  const auto reason = [](const PinnedProgram& program) -> std::string {
    try {
      program.requireUnchanged();
      return "unchanged";
    } catch (const CodeRefused& refusal) {
      return refusal.what();
    }
  };
  Running process(program_);
  const PinnedProgram program(process.pid());
  EXPECT_EQ(reason(program), "unchanged");
  ::chmod(program_.c_str(), 0700);
  expectReason(reason(program), "changed while");
  const PinnedProgram ending(process.pid());
  process.kill();
  ASSERT_TRUE(hasEnded(process.pid()));
  expectReason(reason(ending), "ended while");
  process.end();
  expectReason(reason(ending), "ended while");

  const Pipe input;
  SpawnOptions options;
  options.executable = "/bin/sh";
  options.arguments = {"sh", "-c", "read line; exec \"$0\" 600", program_};
  options.standardStreams[0] = input.reader.get();
  const Running other(spawn(options));
  const PinnedProgram shell(other.pid());
  ASSERT_EQ(::write(input.writer.get(), "\n", 1), 1);
  ASSERT_TRUE(eventually([&] { return verdict(other.pid()) == "valid"; }));
  expectReason(reason(shell), "another program");
}

TEST_F(CodeIdentityTest, NeverTakesAnEndingProcessForAnother) {
  signBeside(signatureBy(maker()));
  for (int round = 0; round < 20; ++round) {
    const Running process(program_);
    std::thread killer([&] { process.kill(); });
    for (std::string now = verdict(process.pid()); now == "valid"; now = verdict(process.pid())) {
    }
    killer.join();
    ASSERT_TRUE(hasEnded(process.pid()));
    expectReason(verdict(process.pid()), "has ended");
  }
}

TEST_F(CodeIdentityTest, SaysWhenAProcessIsSomebodyElses) {
  if (::geteuid() != 0) {
    expectReason(verdict(1), "not permitted");
    return;
  }
  const Running process(program_);
  signBeside(signatureBy(maker()));
  inChild([&] {
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(::setresuid(nobody, nobody, nobody), 0);
    expectReason(verdict(process.pid()), "not permitted");
  });
}

TEST_F(CodeIdentityTest, ReadsAProgramPieceByPiece) {
  // Beyond one piece, not a multiple of it, and mostly holes.
  constexpr off_t size = (off_t{1} << 20U) + 4711;
  ASSERT_EQ(::truncate(program_.c_str(), size), 0);
  signBeside(signatureBy(maker()));
  const Running process(program_);
  EXPECT_EQ(verdict(process.pid()), "valid");
  fs::copy_file(program_, folder_ / "longer");
  ASSERT_EQ(::truncate((folder_ / "longer").c_str(), size + 1), 0);
  writeFile(folder_ / "longer.p7s", readFile(program_ + ".p7s"));
  const Running longer(folder_ / "longer");
  expectReason(verdict(longer.pid()), "content differs");
  fs::copy_file(sleeper, folder_ / "huge");
  ASSERT_EQ(::truncate((folder_ / "huge").c_str(), PinnedProgram::maximumSize + 1), 0);
  const Running huge(folder_ / "huge");
  expectReason(verdict(huge.pid()), "larger than 4 GiB");
}

TEST_F(CodeIdentityTest, ServesManyThreadsAndForkedChildren) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  ASSERT_TRUE(areRootsKept());
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  EXPECT_EQ(verdict(process.pid()), "valid");
  const auto before = descriptors();
  ERR_clear_error();
  std::atomic<int> valid{0};
  std::vector<std::thread> threads;
  constexpr int threadCount = 4;
  constexpr int checks = 25;
  for (int number = 0; number < threadCount; ++number) {
    threads.emplace_back([&] {
      for (int check = 0; check < checks; ++check) valid += verdict(process.pid()) == "valid";
      for (int check = 0; check < checks; ++check) verdict(process.pid(), "another");
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(valid, threadCount * checks);
  EXPECT_EQ(descriptors(), before);
  inChild([&] { EXPECT_EQ(verdict(process.pid()), "valid"); });
  EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
}  // namespace velum::test
