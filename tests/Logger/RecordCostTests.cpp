// What a record costs: system calls and allocations. A program of its own, because it counts every
// allocation it makes.

#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>
#include <vector>

#include "Velum/Logger/Handlers/FileLogHandler.h"
#include "Velum/Logger/Logger.h"
#include "tests/support/TemporaryFolder.h"

namespace {
thread_local long allocations = 0;

void* counted(std::size_t size) {
  ++allocations;
  void* const memory = std::malloc(size);  // NOLINT(*-no-malloc)
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
}  // namespace

void* operator new(std::size_t size) {
  return counted(size);
}
void* operator new[](std::size_t size) {
  return counted(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}  // NOLINT(*-no-malloc)
void operator delete[](void* memory) noexcept {
  std::free(memory);
}  // NOLINT(*-no-malloc)
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}  // NOLINT
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}  // NOLINT

namespace velum {
namespace {

using namespace std::chrono_literals;

class RecordCostTest : public ::testing::Test {
 protected:
  static RotationPolicy neverChecked() {
    RotationPolicy policy;
    policy.firstCheck = 1h;
    return policy;
  }

  test::TemporaryFolder folder;
  std::shared_ptr<FileLogHandler> handler =
      FileLogHandler::create("com.example.vpn", folder / "name.log", true, neverChecked(), {});
  std::string message = "I: (main) Cookie: secret " + std::string(100, 'x');
};

TEST_F(RecordCostTest, AFilteredOutCallAllocatesNothing) {
  Logger logger;
  logger.setHandlers({handler});
  const long before = allocations;
  for (int i = 0; i < 1000; ++i) {
    logger.log(
        LogLevel::debug, [&] { return message + message; }, "file", "function", 1);
    logDebug({"function"}, "{} {}", i, message);
  }
  EXPECT_EQ(allocations, before);
}

TEST_F(RecordCostTest, ARecordAllocatesNothingOnceTheThreadIsWarm) {
  const LogDate date = std::chrono::system_clock::now();
  handler->logWithLevel(LogLevel::info, date, message);
  const long before = allocations;
  for (int i = 0; i < 1000; ++i) {
    handler->logWithLevel(LogLevel::info, date + i * 10ms, message);
  }
  EXPECT_EQ(allocations, before);
}

// The child's system calls between two calls of getppid, which serve as markers.
std::vector<long> tracedCalls(pid_t child) {
  std::vector<long> calls;
  bool isMarked = false;
  int status = 0;
  while (::ptrace(PTRACE_SYSCALL, child, 0, 0) == 0 && ::waitpid(child, &status, 0) == child &&
         WIFSTOPPED(status)) {
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) continue;
    __ptrace_syscall_info info{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
    const long call = static_cast<long>(info.entry.nr);
    if (call == SYS_getppid && isMarked) return calls;
    if (call == SYS_getppid) {
      isMarked = true;
    } else if (isMarked) {
      calls.push_back(call);
    }
  }
  return {};
}

TEST_F(RecordCostTest, ARecordIsThreeSystemCalls) {
  const pid_t child = ::fork();
  if (child == 0) {
    const LogDate date = std::chrono::system_clock::now();
    handler->logWithLevel(LogLevel::info, date, message);  // the child's first: opens the file
    if (::ptrace(PTRACE_TRACEME, 0, 0, 0) != 0) ::_exit(77);
    ::kill(::getpid(), SIGSTOP);
    ::syscall(SYS_getppid);
    handler->logWithLevel(LogLevel::info, date, message);
    handler->logWithLevel(LogLevel::info, date, message);
    ::syscall(SYS_getppid);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status)) GTEST_SKIP() << "tracing is not permitted here";
  ASSERT_EQ(::ptrace(PTRACE_SETOPTIONS, child, 0, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL), 0);
  const std::vector<long> calls = tracedCalls(child);
  ::kill(child, SIGKILL);
  ::waitpid(child, &status, 0);
  EXPECT_EQ(calls,
            (std::vector<long>{SYS_flock, SYS_write, SYS_flock, SYS_flock, SYS_write, SYS_flock}));
}

}  // namespace
}  // namespace velum
