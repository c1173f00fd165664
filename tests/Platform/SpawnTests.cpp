#include "Velum/Platform/Spawn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "Velum/Base/SystemError.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

using ::testing::Contains;

std::string linkTarget(const std::string& path) {
  return std::filesystem::read_symlink(path).native();
}

/// Runs the sample program, which writes down what it was born with, and returns those lines.
class Spawn : public ::testing::Test {
 protected:
  std::vector<std::string> report(SpawnOptions options) {
    const std::string path = folder_ / "report";
    options.executable.assign(VELUM_SAMPLE_BUNDLE "/Contents/MacOS/sample_app");
    options.arguments = {"sample", "an argument"};
    options.environment = {"SAMPLE_APP_EXIT=7", "SAMPLE_APP_REPORT=" + path};
    EXPECT_EQ(exitStatus(spawn(options)), 7);
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  TemporaryFolder folder_;
};

TEST_F(Spawn, GivesOnlyWhatIsNamed) {
  const UniqueFd inheritable(::open("/proc/self/status", O_RDONLY));
  ASSERT_TRUE(inheritable);
  ASSERT_NE(std::signal(SIGPIPE, SIG_IGN), SIG_ERR);
  ASSERT_NE(std::signal(SIGUSR1, SIG_IGN), SIG_ERR);
  sigset_t all{};
  sigset_t before{};
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  SpawnOptions options;
  options.directory.assign("/usr");
  options.newSession = true;
  const std::vector<std::string> lines = report(options);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);

  const auto count = [&lines](const char* kind) {
    return std::ranges::count_if(lines, [=](const auto& line) { return line.starts_with(kind); });
  };
  EXPECT_THAT(lines, ::testing::IsSupersetOf({"argument sample", "argument an argument", "cwd /usr",
                                              "SigBlk: 0000000000000000",
                                              "SigIgn: 0000000000000000", "descriptor 0 /dev/null",
                                              "descriptor 1 /dev/null", "descriptor 2 /dev/null"}));
  EXPECT_EQ(count("descriptor"), 3);
  EXPECT_EQ(count("environment"), 2);
  const auto pid = std::ranges::find_if(lines, [](const auto& l) { return l.starts_with("pid "); });
  ASSERT_NE(pid, lines.end());
  EXPECT_THAT(lines, Contains("sid " + pid->substr(4)));
}

TEST_F(Spawn, DescriptorsMayCross) {
  // Each is a source at a number that another one is moved to.
  SpawnOptions options;
  options.standardStreams = {STDERR_FILENO, STDIN_FILENO, STDOUT_FILENO};
  const Pipe pipe;
  options.extraDescriptor = pipe.writer.get();
  EXPECT_THAT(
      report(options),
      ::testing::IsSupersetOf({
          "descriptor 0 " + linkTarget("/proc/self/fd/2"),
          "descriptor 1 " + linkTarget("/proc/self/fd/0"),
          "descriptor 2 " + linkTarget("/proc/self/fd/1"),
          "descriptor 3 " + linkTarget("/proc/self/fd/" + std::to_string(*options.extraDescriptor)),
      }));
}

TEST_F(Spawn, HandsNoTextToAShell) {
  SpawnOptions options;
  options.executable = folder_ / "text";
  options.arguments = {options.executable};
  writeFile(options.executable, "exit 0\n");
  std::filesystem::permissions(options.executable, std::filesystem::perms::owner_all);
  EXPECT_THROW(spawn(options), SystemError);
}

}  // namespace
}  // namespace velum::test
