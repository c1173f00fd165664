#include "Velum/Relauncher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>

#include "tests/support/Errors.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

using ::testing::HasSubstr;

/// Helpers of the test's own: shell scripts that find their descriptor at number 3.
class StartRelauncher : public ::testing::Test {
 protected:
  std::string helper(const std::string& script) const {
    std::ofstream(folder_ / "helper") << "#!/bin/sh\n" << script << '\n';
    ::chmod((folder_ / "helper").c_str(), 0700);
    return folder_ / "helper";
  }

  static SystemError failure(const std::string& path,
                             std::chrono::milliseconds timeout = deadline) {
    return errorOf([&] { startRelauncher(path, "/An App.app", timeout); });
  }

  TemporaryFolder folder_;
  Family family_;
};

TEST_F(StartRelauncher, ReturnsWhenTheHelperIsArmed) {
  ::setenv("VELUM_BUNDLE_PATH", "/An App.app", 1);
  LineReader lines(folder_ / "lines");
  // The line is written before the byte, and must be there when the call returns.
  const pid_t pid =
      startRelauncher(helper("echo \"$# $1 $2 $VELUM_READY_FD ${VELUM_BUNDLE_PATH-none} $PWD\" > " +
                             (folder_ / "lines") + "; echo >&3; exec 3>&-; exec sleep 1000"),
                      "/An App.app");
  EXPECT_EQ(lines.next(std::chrono::milliseconds(0)),
            "2 /An App.app " + std::to_string(::getpid()) + " 3 none /");
  EXPECT_EQ(::getsid(pid), pid);
  EXPECT_FALSE(hasEnded(pid, std::chrono::milliseconds(0)));
}

TEST_F(StartRelauncher, ReapsAHelperThatEndsLater) {
  const pid_t pid = startRelauncher(helper("echo >&3; exit 1"), "/An App.app");
  // Reaping has no event: the number is simply gone.
  EXPECT_TRUE(eventually([=] { return ::kill(pid, 0) != 0; }));
}

TEST_F(StartRelauncher, FailsWhenTheHelperCanNotServe) {
  EXPECT_EQ(failure(folder_ / "missing").code(), ENOENT);
  const SystemError early = failure(helper("exit 3"));
  EXPECT_EQ(early.code(), EPIPE);
  EXPECT_THAT(early.what(), HasSubstr("ended with status 3"));
  const SystemError silent = failure(helper("exec sleep 1000"), std::chrono::milliseconds(50));
  EXPECT_EQ(silent.code(), ETIMEDOUT);
  EXPECT_THAT(Family::children(), ::testing::IsEmpty());
}

TEST(ReportReady, WritesOneByteAndForgetsTheDescriptor) {
  Pipe pipe;
  const int number = pipe.writer.release();
  ::fcntl(number, F_SETFD, 0);
  ::setenv("VELUM_READY_FD", std::to_string(number).c_str(), 1);
  adoptReadyDescriptor();
  EXPECT_EQ(::fcntl(number, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(std::getenv("VELUM_READY_FD"), nullptr);
  reportReady();
  std::array<char, 2> bytes{};
  EXPECT_EQ(::read(pipe.reader.get(), bytes.data(), bytes.size()), 1);
  EXPECT_EQ(::read(pipe.reader.get(), bytes.data(), bytes.size()), 0) << "still open";
  reportReady();  // nobody waits: nothing happens
}

TEST(ReportReady, SurvivesAnApplicationThatDiedFirst) {
  Pipe pipe;
  pipe.reader.reset();
  ::setenv("VELUM_READY_FD", std::to_string(pipe.writer.release()).c_str(), 1);
  ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
  reportReady();
  sigset_t pending{};
  ::sigpending(&pending);
  EXPECT_EQ(::sigismember(&pending, SIGPIPE), 0);
}

TEST(ReportReady, IgnoresWhatIsNoOpenPipe) {
  const TemporaryFolder folder;
  const UniqueFd file(::open((folder / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  const Pipe pipe;
  const std::string number = std::to_string(pipe.writer.get());
  for (const std::string& value :
       {std::string(), std::string("x"), std::string("2"), std::string("1000000"), number + ' ',
        '+' + number, std::to_string(file.get())}) {
    ::setenv("VELUM_READY_FD", value.c_str(), 1);
    reportReady();
    EXPECT_EQ(std::getenv("VELUM_READY_FD"), nullptr);
  }
  EXPECT_FALSE(isReadable(pipe.reader.get(), std::chrono::milliseconds(0)));
  EXPECT_GE(::fcntl(file.get(), F_GETFD), 0) << "a foreign descriptor was closed";
}

}  // namespace
}  // namespace velum::test
