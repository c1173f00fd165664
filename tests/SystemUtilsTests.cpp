#include "Velum/SystemUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <thread>

#include "tests/support/CapturedLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Environment.h"
#include "tests/support/Processes.h"
#include "tests/support/TemporaryFolder.h"

namespace velum::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

class Tools : public ::testing::Test {
 protected:
  static CliResult shell(const std::string& script) {
    return SystemUtil::cliUtil("/bin/sh", {"-c", script}, std::nullopt, true);
  }
  std::string lastRecord() const {
    const auto texts = log_.texts();
    return texts.empty() ? "" : texts.back();
  }

  Family family_;
  TemporaryFolder folder_;
  CapturedLog log_;
};

using CliUtil = Tools;

TEST_F(CliUtil, ReturnsStatusAndMergedOutput) {
  const CliResult result = shell(R"(printf 'a\0b\377'; echo err >&2; exit 7)");
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.output->view(), (std::string_view("a\0b\377err\n", 8)));
  EXPECT_EQ(shell("true").output->view(), "");
  EXPECT_FALSE(result.isSignal);
  const CliResult killed = shell("kill -TERM $$");
  EXPECT_EQ(killed.status, SIGTERM);
  EXPECT_TRUE(killed.isSignal);
  EXPECT_TRUE(Family::children().empty());
  EXPECT_EQ(lastRecord(), "");
}

TEST_F(CliUtil, ReturnsNoOutputUnlessAsked) {
  const CliResult result =
      SystemUtil::cliUtil("/bin/sh", {"-c", "echo; pwd > pwd"}, folder_.path());
  EXPECT_EQ(result.status, 0);
  EXPECT_FALSE(result.output);
  EXPECT_EQ(readFile(folder_ / "pwd"), folder_.path() + "\n");
}

TEST_F(CliUtil, ReportsAToolThatCannotBeStarted) {
  const CliResult result = SystemUtil::cliUtil(folder_ / "missing", {}, std::nullopt, true);
  EXPECT_EQ(result.status, -1111);
  EXPECT_FALSE(result.output);
  EXPECT_THAT(lastRecord(),
              AllOf(StartsWith("E: (SystemUtils: cliUtil(path:arguments:currentDirPath:output:)) "
                               "Error occured: "),
                    HasSubstr("No such file or directory")));
}

TEST_F(CliUtil, TakesMuchMoreThanAPipeHolds) {
  constexpr std::size_t size = 64 << 20;
  const CliResult result = shell("head -c 67108863 /dev/zero; printf x");
  ASSERT_EQ(result.output->size(), size);
  EXPECT_EQ(result.output->view().find_first_not_of('\0'), size - 1);
}

TEST_F(CliUtil, EndsWithTheToolWhoeverKeepsItsOutput) {
  const CliResult result = shell("head -c 500000 /dev/zero; sleep 1000 & exit 4");
  EXPECT_EQ(result.status, 4);
  EXPECT_EQ(result.output->size(), 500'000U);
  EXPECT_EQ(shell("yes & exit 5").status, 5);
}

TEST_F(CliUtil, EndsWithTheToolThoughItsOutputEndedBefore) {
  const LineReader fifo(folder_ / "fifo");
  std::thread writer([&] { writeFile(folder_ / "fifo", "6\n"); });
  EXPECT_EQ(shell("exec >&- 2>&-; read status < '" + folder_ / "fifo" + "'; exit $status").status,
            6);
  writer.join();
}

TEST_F(CliUtil, WorksWithoutStandardStreamsAndWithIgnoredChildren) {
  inChild([] {
    for (int number = 0; number <= 2; ++number) ::close(number);
    EXPECT_EQ(shell("cat; echo out; echo err >&2").output->view(), "out\nerr\n");
    ASSERT_NE(::signal(SIGCHLD, SIG_IGN), SIG_ERR);
    for (int i = 0; i < 20; ++i) {
      const CliResult result = shell("echo out");
      EXPECT_EQ(result.output->view(), "out\n");
      EXPECT_EQ(result.status, 255);
    }
  });
}

/// What an archive says of one entry; names and types that no zip tool would write included. The
/// content of a link is what it leads to. Every entry has mode 0 but for its type, files 0600.
struct ZipEntry {
  std::string name;
  std::string content;
  std::uint32_t type = S_IFREG;
};

/// Writes a zip archive of uncompressed entries.
void writeZip(const std::string& path, const std::vector<ZipEntry>& entries) {
  constexpr const char* script = R"(
import sys, warnings, zipfile
warnings.simplefilter('ignore')
with zipfile.ZipFile(sys.argv[1], 'w') as archive:
  for name, content, kind in zip(*[iter(sys.argv[2:])] * 3):
    entry = zipfile.ZipInfo(name)
    entry.create_system = 3  # Unix
    archive.writestr(entry, content)
    entry.external_attr = int(kind) << 16
)";
  std::vector<std::string> arguments{"-c", script, path};
  for (const ZipEntry& entry : entries) {
    const std::uint32_t mode = entry.type == S_IFREG ? 0600U : 0U;
    arguments.insert(arguments.end(),
                     {entry.name, entry.content, std::to_string(entry.type | mode)});
  }
  ASSERT_EQ(SystemUtil::cliUtil("/usr/bin/python3", arguments).status, 0);
}

class Archives : public Tools {
 protected:
  std::string archive(const std::vector<ZipEntry>& entries, std::string_view name = "a.zip") const {
    writeZip(folder_ / name, entries);
    return folder_ / name;
  }

  /// All that lies in the target, sorted.
  std::vector<std::string> extracted() const {
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(target_)) {
      paths.push_back(entry.path().lexically_relative(target_).string());
    }
    std::ranges::sort(paths);
    return paths;
  }

  std::string target_ = folder_ / "target";
};

TEST_F(Archives, HoldTheFolderOrOnlyItsContents) {
  // Would delete what is packed, and leave out what is in folders.
  const ScopedVariable zipOptions("ZIPOPT", "-mj");
  const ScopedVariable unzipOptions("UNZIP", "-j");
  for (const std::string name : {"plain", "two words", "-dash", "a[1]*", "\xC3\xA9"}) {
    const std::string source = folder_ / name;
    writeFile(source + "/sub/file", "content");
    EXPECT_EQ(SystemUtil::compressFolder(source + "/", "zip", false), source + ".zip");
    EXPECT_EQ(SystemUtil::compressFolder(source, "contents", true), source + ".contents");
    fs::remove_all(target_);
    ASSERT_TRUE(SystemUtil::uncompress(source + ".zip", target_));
    ASSERT_TRUE(SystemUtil::uncompress(source + ".contents", target_));
    EXPECT_EQ(readFile(target_ + "/" + name + "/sub/file"), "content");
    EXPECT_THAT(extracted(),
                UnorderedElementsAre("sub", "sub/file", name, name + "/sub", name + "/sub/file"));
    EXPECT_EQ(readFile(source + "/sub/file"), "content");
    constexpr std::size_t flags = 7;  // the second byte of those of the first entry
    constexpr int isUtf8 = 1 << 3;
    EXPECT_EQ((readFile(source + ".zip").at(flags) & isUtf8) != 0, name == "\xC3\xA9");
  }
}

TEST_F(Archives, AreNotMadeOfWhatIsNoFolderOrHasNoName) {
  writeFile(folder_ / "file", "");
  constexpr std::string_view tag = "E: (SystemUtils: compressFolder(folderUrl:ext:onlyContents:)) ";
  EXPECT_EQ(SystemUtil::compressFolder(folder_ / "file", "zip", false), std::nullopt);
  EXPECT_EQ(lastRecord(),
            std::string(tag) + "Input URL \"" + folder_ / "file" + "\" must be a directory");
  EXPECT_FALSE(fs::exists(folder_ / "file.zip"));
  fs::create_directory(folder_ / "sub");
  for (const std::string ext : {"", "a/b"}) {
    EXPECT_EQ(SystemUtil::compressFolder(folder_ / "sub", ext, false), std::nullopt);
    EXPECT_EQ(lastRecord(), std::string(tag) + "Can't add \"" + ext + "\" extension to: sub");
  }
  writeFile(folder_ / "sub.zip", "no archive");
  EXPECT_EQ(SystemUtil::compressFolder(folder_ / "sub", "zip", false), std::nullopt);
  EXPECT_THAT(lastRecord(),
              StartsWith(std::string(tag) + "Zipping util failed with code: 3\nOutput:\n"));
}

TEST_F(Archives, ReplaceFilesAndKeepOthers) {
  writeFile(target_ + "/old", "old");
  writeFile(target_ + "/sub/kept", "kept");
  writeFile(folder_ / "outside", "outside");
  fs::create_symlink("../outside", target_ + "/link");
  ASSERT_TRUE(SystemUtil::uncompress(
      archive({{"old", "new"}, {"sub/added", "added"}, {"link", "a file now"}}), target_));
  EXPECT_EQ(lastRecord(), "I: (SystemUtils) Archive uncompressed into: " + target_);
  EXPECT_THAT(extracted(), ElementsAre("link", "old", "sub", "sub/added", "sub/kept"));
  EXPECT_EQ(readFile(target_ + "/old"), "new");
  EXPECT_EQ(readFile(target_ + "/link"), "a file now");
  EXPECT_EQ(readFile(folder_ / "outside"), "outside");
}

TEST_F(Archives, AreFoundByTheirNameAlone) {
  archive({{"wrong", ""}}, "a1.zip");
  for (const std::string name : {"a[1].zip", "a?.zip", "a*.zip", "[\\].zip", "b\\.zip"}) {
    ASSERT_TRUE(SystemUtil::uncompress(archive({{"right" + name, ""}}, name), target_)) << name;
    EXPECT_TRUE(fs::exists(target_ + "/right" + name));
  }
  EXPECT_FALSE(fs::exists(target_ + "/wrong"));
}

TEST_F(Archives, OfNoUseLeaveTheTargetAlone) {
  constexpr std::string_view failed =
      "E: (SystemUtils: uncompress(_:targetFolderUrl:)) Archive uncompressing result: ";
  writeFile(folder_ / "text", "no archive");
  EXPECT_FALSE(SystemUtil::uncompress(folder_ / "text", target_));
  EXPECT_THAT(lastRecord(), AllOf(StartsWith(failed), HasSubstr(". Output: ")));
  const std::string whole = readFile(archive({{"a", "content"}}));
  writeFile(folder_ / "cut.zip", whole.substr(0, whole.size() - 30));
  EXPECT_FALSE(SystemUtil::uncompress(folder_ / "cut.zip", target_));
  std::string damaged = whole;
  damaged.at(damaged.find("content")) = 'X';
  writeFile(folder_ / "damaged.zip", damaged);
  EXPECT_FALSE(SystemUtil::uncompress(folder_ / "damaged.zip", target_));
  EXPECT_THAT(extracted(), ElementsAre());
}

TEST_F(Archives, NeverWriteOutsideTheTarget) {
  const std::string victim = folder_ / "victim";
  writeFile(victim + "/file", "untouched");
  const std::vector<std::vector<ZipEntry>> hostile{
      {{"../victim/file", "x"}},
      {{"sub/../../victim/file", "x"}},
      {{victim + "/file", "x"}},
      {{".\x01./victim/file", "x"}},
      {{"link", victim, S_IFLNK}, {"link/file", "x"}},
      {{"link", "../victim/file", S_IFLNK}},
      {{"link", victim, S_IFLNK}},
      {{"a/link", ".", S_IFLNK}, {"b", "a/link/../../victim", S_IFLNK}},
      {{"old/file", "x"}},
      {{"old/", "", S_IFDIR}},
  };
  for (std::size_t i = 0; i < hostile.size(); ++i) {
    fs::remove_all(target_);
    fs::create_directory(target_);
    fs::create_directory_symlink(victim, target_ + "/old");
    EXPECT_FALSE(SystemUtil::uncompress(archive(hostile[i]), target_)) << i;
    EXPECT_THAT(lastRecord(), StartsWith("E: (SystemUtils: uncompress(_:targetFolderUrl:)) "));
    EXPECT_THAT(extracted(), ElementsAre("old")) << i;
    EXPECT_EQ(readFile(victim + "/file"), "untouched") << i;
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_.path()), fs::directory_iterator()), 3)
        << "the archive, the target and the victim";
  }
}

TEST_F(Archives, KeepLinksThatStayInsideAndFoldersThatForbidReading) {
  ASSERT_TRUE(SystemUtil::uncompress(archive({{"sub/file", "content"},
                                              {"sub/link", "../other", S_IFLNK},
                                              {"closed/", "", S_IFDIR},
                                              {"other", "other"}}),
                                     target_));
  EXPECT_EQ(readFile(target_ + "/sub/link"), "other");
  EXPECT_THAT(extracted(), ElementsAre("closed", "other", "sub", "sub/file", "sub/link"));
}

}  // namespace
}  // namespace velum::test
