// Which processes are looked at, and by whose roots.

#include <fcntl.h>
#include <sys/mman.h>

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
  addRoot("README", "no certificate");
  addRoot(".hidden.pem", "no certificate");
  for (const std::string& place : {roots_ + "/authority.pem", roots_}) {
    const std::string refusal = fs::path(place).filename().string() + " may be written by other";
    const int sound = modeOf(place);
    for (const mode_t more : {0020U, 0002U, 01022U}) {
      ::chmod(place.c_str(), static_cast<mode_t>(sound) | more);
      expectReason(verdict(process.pid()), refusal);
    }
    ::chmod(place.c_str(), static_cast<mode_t>(sound));
    if (::geteuid() == 0) {
      constexpr uid_t nobody = 65534;
      ASSERT_EQ(::chown(place.c_str(), nobody, nobody), 0);
      expectReason(verdict(process.pid()), refusal);
      ASSERT_EQ(::chown(place.c_str(), 0, 0), 0);
    }
    EXPECT_EQ(verdict(process.pid()), "valid");
  }
}

TEST_F(CodeIdentityTest, RefusesRootsThatAreNotWhatTheyShouldBe) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  const std::string pem = root().pem();
  const std::string added = roots_ + "/b.pem";
  for (const auto& [text, expected] :
       {std::pair(""s, "holds no certificate"),
        {"words", "holds no certificate"},
        {pem.substr(0, pem.size() / 2), "is damaged"},
        {pem + "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", "is damaged"},
        {std::string((1U << 20U) + 1, ' '), "can't be read: File too large"}}) {
    addRoot("b.pem", text);
    expectReason(verdict(process.pid()), "b.pem "s + expected);
  }
  fs::remove(added);
  fs::create_symlink("authority.pem", added);
  expectReason(verdict(process.pid()), "b.pem is a symbolic link");
  fs::remove(added);
  ASSERT_EQ(::mkfifo(added.c_str(), 0600), 0);
  expectReason(verdict(process.pid()), "b.pem can't be read");

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

TEST_F(CodeIdentityTest, ServesManyThreadsAndForkedChildrenAndNoticesChangesOfTheRootsAtOnce) {
  const Running process(program_);
  signBeside(signatureBy(maker()));
  ASSERT_TRUE(areRootsKept());
  EXPECT_EQ(verdict(process.pid()), "valid");
  const auto before = openDescriptors();
  ERR_clear_error();
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int check = 0; check < 25; ++check) {
        EXPECT_EQ(verdict(process.pid()), "valid");
        EXPECT_NE(verdict(process.pid(), "another"), "valid");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(openDescriptors(), before);
  inChild([&] { EXPECT_EQ(verdict(process.pid()), "valid"); });
  EXPECT_EQ(ERR_peek_error(), 0U);

  // As long as the one before, and with its times.
  const std::string file = roots_ + "/authority.pem";
  const auto time = fs::last_write_time(file);
  addRoot("authority.pem", makeIdentity({.name = "Authority", .isAuthority = true}).pem());
  fs::last_write_time(file, time);
  expectReason(verdict(process.pid()), "not trusted");
  fs::rename(file, roots_ + "/authority.off");
  expectReason(verdict(process.pid()), "contains no");
}

TEST_F(CodeIdentityTest, RefusesProcessesWithoutAProgramOfTheirOwn) {
  signBeside(signatureBy(maker()));
  for (const int pid : {0, -1, static_cast<int>(noProcess)}) {
    expectReason(verdict(pid), "no such process");
  }
  Running process(program_);
  EXPECT_EQ(verdict(process.pid()), "valid");
  process.signal(SIGKILL);
  ASSERT_TRUE(hasEnded(process.pid()));  // and is a zombie
  expectReason(verdict(process.pid()), "has ended");

  // A script is run by a program that nobody of the team has signed, whatever stands beside it.
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  writeFile(folder_ / "script", "#!/bin/sh\nread line <'" + fifo + "'");
  ::chmod((folder_ / "script").c_str(), 0755);
  writeFile(folder_ / "script.p7s", makeSignature(readFile(folder_ / "script"), {&maker()}));
  const auto script = RunningProgram::piped({folder_ / "script"});
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
  const std::string odd = folder_ / "program (deleted)";
  fs::copy_file(program_, odd);
  writeFile(odd + ".p7s", signatureBy(maker()));
  EXPECT_EQ(verdict(Running(odd).pid()), "valid");
  {
    const Running process(program_);
    fs::rename(odd, program_);  // the same content, signed as well
    expectReason(verdict(process.pid()), "deleted or replaced");
  }
  const UniqueFd memory(::memfd_create("program", MFD_CLOEXEC));
  writeFile("/proc/self/fd/" + std::to_string(memory.get()), readFile(program_));
  const Running inMemory("/proc/" + std::to_string(::getpid()) + "/fd/" +
                         std::to_string(memory.get()));
  expectReason(verdict(inMemory.pid()), "deleted or replaced");
  const Running process(program_);
  fs::create_hard_link(program_, folder_ / "other");
  fs::remove(program_);
  expectReason(verdict(process.pid()), "deleted or replaced");
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
  process.signal(SIGKILL);
  ASSERT_TRUE(hasEnded(process.pid()));
  expectReason(reason(ending), "ended while");
  process.wait();
  expectReason(reason(ending), "ended while");

  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto other = RunningProgram::piped(
      {"/bin/sh", "-c", "read line <'" + fifo + "'; exec \"$0\" 600", program_});
  const PinnedProgram shell(other.pid(), UINT64_MAX);
  writeFile(fifo, "\n");
  ASSERT_TRUE(eventually([&] { return verdict(other.pid()) == "valid"; }));
  expectReason(reason(shell), "another program");
}

TEST_F(CodeIdentityTest, SaysWhenAProcessIsSomebodyElses) {
  if (::geteuid() != 0) return expectReason(verdict(1), "not permitted");
  const Running process(program_);
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
  EXPECT_EQ(verdict(process.pid(), team, {.maximumSize = size}), "valid");
  expectReason(verdict(process.pid(), team, {.maximumSize = size - 1}), "are read at most");
}

}  // namespace
}  // namespace velum::test
