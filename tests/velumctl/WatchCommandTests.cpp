#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/TemporaryFolder.h"
#include "tests/velumctl/VelumctlTest.h"

namespace velum::test {
namespace {

class VelumctlWatch : public VelumctlTest {
 protected:
  VelumctlWatch() { std::filesystem::create_directory(path_); }

  static RunningProgram watching(const Strings& arguments) {
    return start(Strings{"watch"} + arguments);
  }
  std::string path_ = folder_ / "watched";
};

TEST_F(VelumctlWatch, PrintsChangesUntilInterruptedWhateverBecomesOfThePath) {
  RunningProgram watch = watching({path_});
  const auto change = [&] { ::chmod(path_.c_str(), 0700); };
  EXPECT_TRUE(prints(watch, " changed " + path_ + '\n', change));
  std::filesystem::remove_all(path_);
  watch.readUntil(" missing " + path_ + '\n');
  std::filesystem::create_directory(path_);
  RunningProgram json = watching({"--json", path_});
  EXPECT_TRUE(prints(json, "\"path\":\"" + path_ + "\",\"exists\":true}\n", change));
  json.closeOutput();
  writeFile(path_ + "/c", "");
  EXPECT_EQ(json.wait(), 0) << "its reader has gone";
  watch.signal(SIGHUP);
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_GT(watch.readToEnd().rfind(" changed "), watch.readToEnd().rfind(" missing "));
}

TEST_F(VelumctlWatch, RunsACommandAfterChanges) {
  const std::string ran = folder_ / "ran";
  int files = 0;
  const auto hasRun = [&](const std::string& twice) {
    return eventually([&] {
      writeFile(path_ + '/' + std::to_string(++files), "");
      return readFile(ran).starts_with(twice);
    });
  };
  RunningProgram watch = watching(
      {path_, "--exec", "sh", "-c", "echo --json \"$0\" >> " + ran + "; exit 3", "--help"});
  EXPECT_TRUE(hasRun("--json --help\n--json --help\n")) << "its failure ends nothing";
  watch.signal(SIGQUIT);
  EXPECT_EQ(watch.wait(), 0);
  RunningProgram busy =
      watching({path_, "--exec", "sh", "-c", "echo x > " + ran + "; exec sleep 600"});
  EXPECT_TRUE(hasRun("x"));
  busy.signal(SIGTERM);
  EXPECT_EQ(busy.wait(), 0) << "it waits for the command";
}

TEST_F(VelumctlWatch, SaysWhatIsWrong) {
  const Result missing = run({"watch", folder_ / "missing"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.errors,
            "velumctl: " + (folder_ / "missing") + ": No such file or directory; check the path\n");
  EXPECT_EQ(run({"watch"}).status, 2);
  EXPECT_EQ(run({"watch", path_, "--exec"}).status, 2);
  EXPECT_EQ(run({"watch", path_, "true"}).status, 2);
  const Result noCommand = run({"watch", path_, "--exec", folder_ / "none"});
  EXPECT_EQ(noCommand.status, 1);
  EXPECT_NE(noCommand.errors.find("is not an executable file"), std::string::npos);
}

}  // namespace
}  // namespace velum::test
