#include "Velum/Platform/FileClone.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>

#include "Velum/Base/Progress.h"
#include "Velum/Files/UniqueFd.h"
#include "tests/support/Errors.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;

class FileCloneTest : public ::testing::Test {
 protected:
  std::size_t files() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()));
  }

  static int codeOf(const std::string& from, const std::string& to,
                    const Progress* progress = nullptr) {
    const SystemError error = test::errorOf([&] { cloneFile(from, to, progress); });
    EXPECT_EQ(error.message(), "clonefile(_:to:), copyfile (" + from + ", " + to + ")");
    return error.code();
  }

  test::TemporaryFolder folder;
  std::string source = folder / "source";
  std::string target = folder / "target";
};

TEST_F(FileCloneTest, CopiesContentPermissionsAndTimes) {
  const std::string content(300'000, 'c');
  test::writeFile(source, content);
  ASSERT_EQ(::chmod(source.c_str(), 0640), 0);
  const std::array<timespec, 2> times{timespec{1000, 5}, timespec{2000, 7}};
  ASSERT_EQ(::utimensat(AT_FDCWD, source.c_str(), times.data(), 0), 0);
  fs::create_symlink(source, folder / "link");
  cloneFile(folder / "link", target);
  EXPECT_EQ(test::readFile(target), content);
  struct stat status {};
  ASSERT_EQ(::lstat(target.c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(status.st_mtim.tv_sec, 2000);
  EXPECT_EQ(status.st_mtim.tv_nsec, 7);
  test::writeFile(source, "changed");
  EXPECT_EQ(test::readFile(target), content);
  EXPECT_EQ(files(), 3U);
}

TEST_F(FileCloneTest, CopiesEmptyFilesAndFilesOfProcWhoseSizeIsNotKnown) {
  test::writeFile(source, "");
  cloneFile(source, target);
  EXPECT_EQ(test::readFile(target), "");
  cloneFile("/proc/version", target);
  EXPECT_EQ(test::readFile(target), test::readFile("/proc/version"));
}

TEST_F(FileCloneTest, ReplacesTheTargetInOneStep) {
  test::writeFile(target, "first");
  const UniqueFd reader(::open(target.c_str(), O_RDONLY | O_CLOEXEC));
  test::writeFile(source, "second");
  cloneFile(source, target);
  EXPECT_EQ(test::readFile("/proc/self/fd/" + std::to_string(reader.get())), "first");
  EXPECT_EQ(test::readFile(target), "second");
  EXPECT_EQ(files(), 2U);
}

TEST_F(FileCloneTest, ReportsWhatCannotBeCloned) {
  EXPECT_EQ(codeOf(source, target), ENOENT);
  EXPECT_EQ(codeOf(folder.path(), target), EISDIR);
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(codeOf(folder / "pipe", target), EINVAL);
  test::writeFile(source, "x");
  EXPECT_EQ(codeOf(source, folder / "missing/target"), ENOENT);
  fs::create_directory(target);
  EXPECT_EQ(codeOf(source, target), EISDIR);
  Progress cancelled(1);
  cancelled.cancel();
  EXPECT_EQ(codeOf("/proc/version", folder / "new", &cancelled), ECANCELED);
  EXPECT_EQ(files(), 3U) << "nothing is left of failures";
  EXPECT_EQ(setCreationTime(-1, {}), EBADF);
  const UniqueFd file(::open(source.c_str(), O_WRONLY | O_CLOEXEC));
  const UniqueFd reader(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
  const CopyOutcome unread = copyFileRange(file.get(), 0, file.get(), 1, 1);
  EXPECT_TRUE(unread.error == EBADF && unread.isOfSource);
  const CopyOutcome unwritten = copyFileRange(reader.get(), 0, reader.get(), 1, 1);
  EXPECT_TRUE(unwritten.error == EBADF && !unwritten.isOfSource);
}

}  // namespace
}  // namespace velum
