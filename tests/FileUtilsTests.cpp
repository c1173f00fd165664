#include "Velum/FileUtils.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <regex>

#include "Velum/Files/CheckedIo.h"
#include "Velum/Files/TemporaryFolder.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Errors.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/TemporaryFolder.h"

namespace velum {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class FileUtilsTest : public ::testing::Test {
 protected:
  std::string make(const std::string& name, std::time_t modified = 1000) const {
    test::writeFile(folder / name, name);
    const std::array<timespec, 2> times{timespec{modified, 0}, timespec{modified, 0}};
    EXPECT_EQ(::utimensat(AT_FDCWD, (folder / name).c_str(), times.data(), 0), 0);
    return folder / name;
  }
  static std::string errorOf(const std::function<void()>& call, int code) {
    const SystemError error = test::errorOf(call);
    EXPECT_EQ(error.code(), code);
    EXPECT_EQ(error.what(), error.message() + ": " + systemErrorText(code));
    return error.message();
  }

  test::TemporaryFolder folder;
  test::CapturedLog log;
};

TEST_F(FileUtilsTest, FindsFilesBySuffixButNoFoldersAndNoHiddenOnes) {
  const std::string a = make("a.log");
  const std::string b = make("log.b.log");
  make("c.txt");
  make(".hidden.log");
  make("sub/d.log");
  fs::create_directory(folder / "folder.log");
  EXPECT_THAT(FileUtils::findFile(".log", folder.path(), false), UnorderedElementsAre(a, b));
  EXPECT_THAT(FileUtils::findFile("log", folder.path() + "/./", true), UnorderedElementsAre(a, b));
  EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(FileUtilsTest, SortsByModificationNewestFirstAndUnknownLast) {
  const std::string old = make("b.log", 1000);
  const std::string newest = make("a.log", 3000);
  const std::string middle = make("c.log", 2000);
  fs::create_symlink("missing", folder / "0.log");
  EXPECT_THAT(FileUtils::findFile(".log", folder.path(), true),
              ElementsAre(newest, middle, old, folder / "0.log"));
}

TEST_F(FileUtilsTest, LogsOneErrorForAMissingFolder) {
  EXPECT_THAT(FileUtils::findFile(".log", folder / "missing", true), IsEmpty());
  EXPECT_THAT(log.texts(),
              ElementsAre("E: (FileUtils: findFile(suffix:in:sorted:)) Can't get all files with "
                          ".log in directory: " +
                          folder / "missing" + " with error: No such file or directory"));
}

TEST_F(FileUtilsTest, MovesAFileButReplacesNone) {
  const std::string file = make("a");
  fs::create_directory(folder / "to");
  FileUtils::moveFile(file + "/", folder / "to/");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(test::readFile(folder / "to/a"), "a");
  EXPECT_THAT(log.texts(), IsEmpty());

  test::writeFile(file, "second");
  FileUtils::moveFile(file, folder / "to");
  EXPECT_EQ(test::readFile(file), "second");
  EXPECT_EQ(test::readFile(folder / "to/a"), "a");
  FileUtils::moveFile(folder / "missing", folder / "to");
  EXPECT_THAT(log.texts(),
              ElementsAre("E: (FileUtils: moveFile(name:to:)) filed to move file " + file +
                              " to directory: " + folder / "to" + " with error: File exists",
                          "E: (FileUtils: moveFile(name:to:)) filed to move file " +
                              folder / "missing" + " to directory: " + folder / "to" +
                              " with error: No such file or directory"));
}

TEST_F(FileUtilsTest, MovesAcrossVolumesWithTimesOrNotAtAll) {
  test::inChild([this] {
    if (!test::enterPrivateMounts()) GTEST_SKIP() << "no private mounts here";
    const std::string small = make("small", 1234);
    const std::string big = make("big");
    test::writeFile(big, std::string(100'000, 'b'));
    fs::create_directory(folder / "volume");
    test::mountMemory(folder / "volume", "size=64k");
    FileUtils::moveFile(small, folder / "volume");
    EXPECT_FALSE(fs::exists(small));
    EXPECT_EQ(test::readFile(folder / "volume/small"), "small");
    struct stat status {};
    ASSERT_EQ(::stat((folder / "volume/small").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1234);

    fs::create_symlink("../big", folder / "link");
    FileUtils::moveFile(folder / "link", folder / "volume");
    EXPECT_EQ(fs::read_symlink(folder / "volume/link"), "../big") << "not what it leads to";
    EXPECT_FALSE(fs::is_symlink(folder / "link"));

    make("small");
    FileUtils::moveFile(small, folder / "volume");
    FileUtils::moveFile(big, folder / "volume");
    EXPECT_EQ(fs::file_size(big), 100'000U);
    EXPECT_FALSE(fs::exists(folder / "volume/big")) << "a part of the file";
    ASSERT_EQ(log.texts().size(), 2U);
    EXPECT_TRUE(log.texts()[0].ends_with(" with error: File exists")) << log.texts()[0];
    EXPECT_TRUE(log.texts()[1].ends_with(" with error: No space left on device")) << log.texts()[1];
  });
}

TEST_F(FileUtilsTest, DeletesFilesAndFoldersAndLogsWhatItCannot) {
  make("sub/deep/file");
  FileUtils::deleteFile(folder / "sub");
  EXPECT_FALSE(fs::exists(folder / "sub"));
  EXPECT_THAT(log.texts(), IsEmpty());
  FileUtils::deleteFile(folder / "sub");
  EXPECT_THAT(log.texts(), ElementsAre("E: (FileUtils: deleteFile(_:)) Error deleting " +
                                       folder / "sub" + " with error: No such file or directory"));
}

TEST_F(FileUtilsTest, MakesUniqueTemporaryFolders) {
  std::filesystem::create_directory(folder / "log.April");  // somebody's
  std::filesystem::permissions(folder / "log.April", std::filesystem::perms::owner_all);
  const TemporaryFolder first("log", folder.path(), "caller(_:)");
  const TemporaryFolder second("log", folder.path(), "caller(_:)");
  EXPECT_TRUE(std::filesystem::exists(folder / "log.April"));
  EXPECT_NE(first.path(), second.path());
  EXPECT_TRUE(std::regex_match(first.path(), std::regex(folder.path() + "/log\\.[A-Za-z0-9]{5}")));
  struct stat status {};
  ASSERT_EQ(::stat(first.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);

  const std::string missing = folder / "missing";
  EXPECT_EQ(errorOf([&] { makeTemporaryFolder("log", missing, "caller(_:)"); }, ENOENT),
            "caller(_:): Failed to create temporary folder '" + missing + "/log.XXXXX'");
  EXPECT_EQ(errorOf([&] { makeTemporaryFolder("\xFF", folder.path(), "c"); }, EILSEQ),
            "c: Failed to validate temporary folder name '" + folder / "\xFF.XXXXX" + "'");
}

TEST_F(FileUtilsTest, WrapsSystemCallsInErrorsThatNameThem) {
  const std::string file = folder / "file";
  {
    const UniqueFd fd = checked::open(file, O_RDWR | O_CREAT, 0600, "c");
    EXPECT_NE(::fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, 0);
    checked::write(fd.get(), "hello", 5, "c");
    EXPECT_EQ(checked::lseek(fd.get(), 1, SEEK_SET, "c"), 1);
    std::string buffer(10, ' ');
    EXPECT_EQ(checked::read(fd.get(), buffer.data(), 10, "c"), 4U);
    EXPECT_EQ(checked::read(fd.get(), buffer.data(), 10, "c"), 0U) << "the end is no error";
    EXPECT_EQ(checked::fileSize(file, "c"), 5);
  }
  const std::string missing = folder / "missing";
  EXPECT_EQ(errorOf([&] { checked::open(missing, O_RDONLY, 0, "run(_:)"); }, ENOENT)
                .find("run(_:): open (" + missing + ", "),
            0U);
  EXPECT_EQ(errorOf([&] { checked::read(-1, nullptr, 3, "c"); }, EBADF), "c: read (-1, 3)");
  EXPECT_EQ(errorOf([&] { checked::write(-1, "abc", 3, "c"); }, EBADF), "c: write (-1, 3)");
  EXPECT_EQ(errorOf([&] { checked::lseek(-1, 2, SEEK_CUR, "c"); }, EBADF), "c: lseek (-1, 2, 1)");
  EXPECT_EQ(errorOf([&] { checked::fileSize(missing, "c"); }, ENOENT), "c: stat (" + missing + ")");
}

TEST(SystemErrorTest, ReplacesCodesTheSystemDoesNotKnow) {
  EXPECT_EQ(SystemError(4711, "m").code(), SystemError::lastCode);
  EXPECT_EQ(SystemError(-1, "m").code(), SystemError::lastCode);
  EXPECT_EQ(SystemError(ENOENT, "m").code(), ENOENT);
}

}  // namespace
}  // namespace velum
