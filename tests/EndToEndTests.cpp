// The real helper beside a real application that quits in every way we know of.

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "Velum/Relauncher.h"
#include "tests/support/RelaunchTest.h"

namespace velum::test {
namespace {

class EndToEnd : public RelaunchTest {};

TEST_F(EndToEnd, OpensTheApplicationAgainAfterItQuit) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  ::kill(application, SIGTERM);
  EXPECT_EQ(exitStatus(application), 0);
  EXPECT_EQ(next().name, "quit");
  const Event started = next();
  EXPECT_EQ(started.name, "started");
  EXPECT_EQ(started.parent, helper);
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_FALSE(hasEnded(started.pid, std::chrono::milliseconds(0))) << "it outlives the helper";

  const std::string text = log();
  std::size_t at = 0;
  for (const std::string& message : {"Looking for :" + bundle + ' ' + std::to_string(application),
                                     "Process " + std::to_string(application) + " has ended",
                                     std::string("App was relaunched successfully")}) {
    at = text.find(message, at);
    ASSERT_NE(at, std::string::npos) << message << " is missing in\n" << text;
  }
}

TEST_F(EndToEnd, OpensAnApplicationThatWasGoneBefore) {
  const pid_t application = startApplication();
  ::kill(application, SIGKILL);
  ASSERT_TRUE(exitStatus(application));
  for (const std::string& id : {std::to_string(application), std::string("-5"), std::string("+0"),
                                std::string("2147483647")}) {
    const pid_t helper = start(VELUM_RELAUNCHER, {bundle, id}, {});
    const Event started = next();
    EXPECT_EQ(started.name, "started") << id;
    EXPECT_EQ(exitStatus(helper), 0) << id;
    ::kill(started.pid, SIGKILL);
    ASSERT_TRUE(exitStatus(started.pid));
  }
}

TEST_F(EndToEnd, AnApplicationMayDieOnceItsHelperIsArmed) {
  // A process that arms the helper and is gone at once; the test then adopts the helper.
  Pipe pipe;
  const pid_t application = ::fork();
  if (application == 0) {
    for (const std::string& variable : environment()) {
      ::putenv(::strdup(variable.c_str()));  // NOLINT: until the exit below
    }
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    const pid_t helper = startRelauncher(VELUM_RELAUNCHER, bundle);
    const ssize_t size = ::write(pipe.writer.get(), &helper, sizeof helper);
    ::kill(::getpid(), size > 0 ? SIGKILL : SIGABRT);
  }
  EXPECT_EQ(exitStatus(application), 128 + SIGKILL);
  pid_t helper = 0;
  ASSERT_EQ(::read(pipe.reader.get(), &helper, sizeof helper), ssize_t{sizeof helper});
  EXPECT_EQ(next().parent, helper);
  EXPECT_EQ(exitStatus(helper), 0);
}

TEST_F(EndToEnd, MakesItsOwnWhatItWasStartedWith) {
#ifdef VELUM_THREAD_SANITIZER
  GTEST_SKIP() << "this sanitizer writes a file of its own before the helper begins";
#endif
  // What the starter closed, ignored and limited.
  helperCommand = {"/bin/sh", "-c", "trap '' CHLD; ulimit -f 0; exec \"$@\" 0<&- 1>&- 2>&-", "sh",
                   VELUM_RELAUNCHER};
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application, {"SAMPLE_APP_EXIT=0"});
  for (const char* stream : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(helper) + "/fd/" + stream),
              "/dev/null");
  }
  ::kill(application, SIGKILL);
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_EQ(next().name, "started");
  EXPECT_EQ(next().name, "quit");
  EXPECT_TRUE(isQuiet()) << "how the new instance ended was not known";
}

TEST_F(EndToEnd, OpensTheApplicationWhileSomebodyHoldsTheLog) {
  const pid_t application = startApplication();
  const pid_t helper = startHelper(bundle, application);
  const UniqueFd file(::open(logFile().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(file.get(), LOCK_EX), 0);
  ::kill(application, SIGKILL);
  EXPECT_EQ(next().name, "started");
  ASSERT_EQ(::flock(file.get(), LOCK_UN), 0);
  EXPECT_EQ(exitStatus(helper), 0);
  EXPECT_TRUE(isLogged("Process " + std::to_string(application) + " has ended"));
}

/// Counts a process's system calls from the end of the application that it waits for to the new
/// process: one for each process of the machine, and others, but for those by which it looks at
/// other applications that happen to run.
class CallCounter {
 public:
  CallCounter(pid_t helper, pid_t application, std::string bundle)
      : helper_(helper), application_(application), bundle_(std::move(bundle)) {}

  /// False where tracing is not permitted.
  bool run() {
    if (::ptrace(PTRACE_SEIZE, helper_, 0, PTRACE_O_TRACESYSGOOD) != 0) return false;
    ::ptrace(PTRACE_INTERRUPT, helper_, 0, 0);
    int status = 0;
    while (::waitpid(helper_, &status, __WALL) == helper_ && WIFSTOPPED(status)) {
      __ptrace_syscall_info info{};
      if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
        ::ptrace(PTRACE_GET_SYSCALL_INFO, helper_, sizeof info, &info);
      }
      if (info.op == PTRACE_SYSCALL_INFO_ENTRY && !enter(info)) break;
      if (info.op == PTRACE_SYSCALL_INFO_EXIT) leave(info.exit.rval);
      ::ptrace(PTRACE_SYSCALL, helper_, 0, 0);
    }
    return ::ptrace(PTRACE_DETACH, helper_, 0, 0) == 0;
  }

  int looks = 0;
  std::vector<std::string> others;

 private:
  /// False at the call that makes the new process.
  bool enter(const __ptrace_syscall_info& info) {
    const auto call = static_cast<long>(info.entry.nr);
    if (call == SYS_clone || call == SYS_clone3 || call == SYS_vfork) return false;
    isWaiting_ = call == SYS_epoll_wait && static_cast<int>(info.entry.args[3]) == -1;
    if (isWaiting_ && !hasEnded_) ::kill(application_, SIGKILL);
    const bool hasPath = call == SYS_openat || call == SYS_newfstatat;
    const std::string path = call == SYS_access ? text(info.entry.args[0])
                             : hasPath          ? text(info.entry.args[1])
                                                : "";
    const bool isForeign = isOfOthers(path) || foreign_.contains(info.entry.args[0]);
    isForeignOpen_ = isForeign && call == SYS_openat;
    if (call == SYS_close) foreign_.erase(info.entry.args[0]);
    if (!hasEnded_ || isForeign) return true;
    if (call == SYS_readlinkat) {
      ++looks;
    } else {
      others.push_back(std::to_string(call) + ' ' + path);
    }
    return true;
  }

  void leave(long result) {
    if (isWaiting_ && result > 0) hasEnded_ = true;
    if (isForeignOpen_ && result >= 0) foreign_.insert(static_cast<std::uint64_t>(result));
  }

  bool isOfOthers(const std::string& path) const {
    constexpr std::string_view processes = "/proc/";
    if (path.starts_with(processes)) return path.find_first_of("0123456789") == processes.size();
    if (path.ends_with(" (deleted)")) return true;  // the program of a process is looked for again
    const bool isInBundle = path.ends_with(".app") || path.find("/Contents") != std::string::npos;
    return isInBundle && !path.starts_with(bundle_);
  }

  std::string text(std::uint64_t address) const {
    std::array<char, 256> buffer{};
    iovec here{buffer.data(), buffer.size() - 1};
    iovec there{reinterpret_cast<void*>(address), buffer.size() - 1};  // NOLINT: the helper's
    return ::process_vm_readv(helper_, &here, 1, &there, 1, 0) > 0 ? buffer.data() : "";
  }

  pid_t helper_;
  pid_t application_;
  std::string bundle_;
  bool isWaiting_ = false;
  bool hasEnded_ = false;
  bool isForeignOpen_ = false;
  std::set<std::uint64_t> foreign_;
};

TEST_F(EndToEnd, NeedsFewSystemCalls) {
#ifdef VELUM_SANITIZED
  GTEST_SKIP() << "sanitizers make system calls of their own";
#endif
  // The second time, there is a record of the first.
  for (int round = 0; round < 2; ++round) {
    const pid_t application = startApplication();
    const pid_t helper = startHelper(bundle, application);
    CallCounter calls(helper, application, bundle);
    if (!calls.run()) GTEST_SKIP() << "tracing is not permitted here";
    const Event started = next();
    EXPECT_EQ(started.name, "started");
    EXPECT_EQ(exitStatus(helper), 0);
    EXPECT_GT(calls.looks, 0);
    EXPECT_LE(calls.others.size(), 35U) << fmt::format("{}", fmt::join(calls.others, "; "));
    ::kill(started.pid, SIGKILL);
    EXPECT_TRUE(exitStatus(started.pid));
  }
}

TEST_F(EndToEnd, RefusesAWrongNumberOfArguments) {
  EXPECT_EQ(exitStatus(start(VELUM_RELAUNCHER, {}, {})), 1);
  EXPECT_TRUE(isLogged("Unexpected arguments count: 1"));
  EXPECT_EQ(exitStatus(start(VELUM_RELAUNCHER, {bundle, "1", "x"}, {})), 1);
  EXPECT_TRUE(isLogged("Unexpected arguments count: 4"));
}

TEST_F(EndToEnd, StopsAtOnceAtWhatIsNoProcessId) {
  for (const char* text : {"", "+", "-", "12a", " 1", "0x10", "+-1", "2147483648"}) {
    EXPECT_EQ(exitStatus(start(VELUM_RELAUNCHER, {bundle, text}, {})), 128 + SIGABRT) << text;
  }
  EXPECT_TRUE(isQuiet());
  EXPECT_FALSE(isLogged("Looking for")) << log();
}

TEST_F(EndToEnd, SleepsWhileItWaits) {
#ifdef VELUM_THREAD_SANITIZER
  GTEST_SKIP() << "the thread sanitizer keeps a thread of its own busy";
#endif
  const pid_t other = startShell("exec sleep 1000");
  const pid_t helper = startHelper(bundle, other);
  const auto switches = [helper] {
    long total = 0;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(helper) + "/task")) {
      std::istringstream status(readFile(thread.path() / "status"));
      for (std::string line; std::getline(status, line);) {
        if (line.starts_with("voluntary_ctxt_switches:")) total += std::stol(line.substr(24));
      }
    }
    return total;
  };
  // What it does right after it is armed comes to rest first.
  EXPECT_FALSE(hasEnded(helper, std::chrono::milliseconds(200)));
  const long before = switches();
  EXPECT_FALSE(hasEnded(helper, std::chrono::milliseconds(500)));
  EXPECT_LE(switches() - before, 1);
}

}  // namespace
}  // namespace velum::test
