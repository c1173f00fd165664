#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <ctime>
#include <filesystem>
#include <memory>
#include <string>

#include "Velum/Platform/CodeIdentity.h"
#include "Velum/Platform/Linux/CodeIdentity/PinnedProgram.h"
#include "tests/support/CodeSigning.h"
#include "tests/support/Processes.h"
#include "tests/support/RunningProgram.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {

namespace fs = std::filesystem;

inline constexpr const char* team = "R8K2ZP5WQN";
inline constexpr const char* sleeper = "/bin/sleep";

/// A process that runs `path`, a copy of the sleeper, until the test ends.
class Running : public RunningProgram {
 public:
  explicit Running(const std::string& path) : RunningProgram(piped({path, "600"})) {}
};

/// A program, folders for what it is trusted by, and whoever signs it.
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

}  // namespace velum::test
