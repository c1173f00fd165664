// Which processes are looked at, and by whose roots.

#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Velum/Platform/Linux/CodeIdentity/CodeRefused.h"
#include "tests/Platform/Linux/CodeIdentityTest.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Inspection.h"
#include "tests/support/PrivateMounts.h"

namespace velum::test {
namespace {

using namespace std::string_literals;

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
  for (const char* ending : {"", "/", "//./"}) {
    const auto verdict = CodeIdentity::trusting(roots_ + ending)->check(process.pid(), team);
    expectReason(verdict.reason, "symbolic link", ending);
  }
  fs::remove(roots_);
  fs::create_directory(roots_);
  expectReason(verdict(process.pid()), "contains no");
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
  expectReason(verdict(process.pid()), "contains no");
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
    expectReason(verdict(2), "kernel thread");
  }
}

// The same number stands for two processes: a signed one where /proc is from, and one that is not.
TEST_F(CodeIdentityTest, TakesNoProcessForThatOfAnotherNamespaceWithItsNumber) {
  signBeside(signatureBy(maker()));
  const Running process(program_);
  inChild([&] {
    if (!enterPrivateMounts() || ::unshare(CLONE_NEWPID) != 0) GTEST_SKIP() << "not permitted";
    inChild([&] {
      if (!detail::writeProc("/proc/sys/kernel/ns_last_pid", std::to_string(process.pid() - 1))) {
        GTEST_SKIP() << "the next process id can't be chosen";
      }
      const Running twin(sleeper);
      ASSERT_EQ(twin.pid(), process.pid());
      expectReason(verdict(twin.pid()), "not signed");
      EXPECT_EQ(verdict(Running(program_).pid()), "valid");
    });
  });
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
  const PinnedProgram program(process.pid(), UINT64_MAX);
  EXPECT_EQ(reason(program), "unchanged");
  ::chmod(program_.c_str(), 0700);
  expectReason(reason(program), "changed while");
  const PinnedProgram ending(process.pid(), UINT64_MAX);
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
  const PinnedProgram shell(other.pid(), UINT64_MAX);
  ASSERT_EQ(::write(input.writer.get(), "\n", 1), 1);
  ASSERT_TRUE(eventually([&] { return verdict(other.pid()) == "valid"; }));
  expectReason(reason(shell), "another program");
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
  EXPECT_EQ(verdict(process.pid(), team, {.maximumSize = size}), "valid");
  expectReason(verdict(process.pid(), team, {.maximumSize = size - 1}), "are read at most");
}

TEST_F(CodeIdentityTest, ServesManyThreadsAndForkedChildren) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  ASSERT_TRUE(areRootsKept());
  EXPECT_EQ(verdict(process.pid()), "valid");
  const auto before = openDescriptors();
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
  EXPECT_EQ(openDescriptors(), before);
  inChild([&] { EXPECT_EQ(verdict(process.pid()), "valid"); });
  EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
}  // namespace velum::test
