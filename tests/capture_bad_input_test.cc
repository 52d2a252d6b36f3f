// `nembra record-audio`, `record-screen` and `watch-screen-recordings` given what cannot be
// recorded: each ends with a plain message naming what went wrong and exit code 1; a movie that
// cannot reach the shared directory stays in the temporary directory and says where.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/system/child_process.h"
#include "platform/ui/testing/xvfb_display.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

class CaptureBadInputTest : public ::testing::Test {
 protected:
  // The tool with its files under the scratch root, no display unless given one.
  testing::CommandResult run(const std::vector<std::string>& args) {
    std::string line = "env -u DISPLAY NEMBRA_HOME=" + quoted(scratch_.path()) + " " +
                       quoted(NEMBRA_CLI_PATH) +
                       " --server http://127.0.0.1:9 --token app1 --ui none";
    for (const std::string& arg : args) line += " " + quoted(arg);
    return testing::runCommand({"/bin/sh", "-c", line + " 2>&1"});
  }
  std::string shared(const std::string& group) {
    return scratch_.path() + "/AppGroups/" + group + "/Library/Caches/com.nembra.screen-recording";
  }

  testing::TempDir scratch_{"nembra-capture-bad-input"};
};

TEST_F(CaptureBadInputTest, NothingToRecordFromIsOneClearMessage) {
  testing::XvfbDisplay xvfb("320x240x24");
  struct Case {
    std::vector<std::string> args;
    std::string says;
  };
  std::vector<Case> cases = {
      {{"record-audio", "--mic", "alsa:nembra-no-card"}, "no microphone alsa:nembra-no-card"},
      {{"record-audio", "--mic", "lavfi", "--extra", "title"},
       "--extra \"title\" is not name=value"},
      {{"record-screen", "--app-group", "g", "--mic", "none"}, "no X11 display to record"},
      {{"record-screen", "--app-group", "g", "--display", ":7391", "--mic", "none"},
       "can't record the screen of display :7391"},
      {{"watch-screen-recordings", "--app-group", ""}, "--app-group must not be empty"},
  };
  if (!xvfb.display().empty()) {
    cases.push_back({{"record-screen", "--app-group", "g", "--display", xvfb.display(), "--mic",
                      "pulse:nembra-no-source"},
                     "no microphone pulse:nembra-no-source"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1] + " " + c.args[2]);
    const auto result = run(c.args);
    EXPECT_EQ(result.exitCode, 1) << result.output;
    EXPECT_NE(result.output.find(c.says), std::string::npos) << result.output;
  }
}

TEST_F(CaptureBadInputTest, AMovieWithNowhereToGoStaysInTheTemporaryDirectory) {
  testing::XvfbDisplay xvfb("320x240x24");
  if (xvfb.display().empty()) GTEST_SKIP() << "no Xvfb";
  struct Case {
    std::string group;
    std::vector<std::string> says;
  };
  std::vector<Case> cases = {
      {"",
       {"Please specify non-empty value in the return value of the method getApplicationGroup "
        "in the class SampleHandler",
        "Failed to get screen recording directory"}},
  };
  // The shared directory is a file: it can be neither created nor written into.
  std::filesystem::create_directories(std::filesystem::path(shared("blocked")).parent_path());
  testing::writeFile(shared("blocked"), "not a directory");
  cases.push_back({"blocked", {"Failed to get screen recording directory"}});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.group);
    const auto result = run({"record-screen", "--app-group", c.group, "--display", xvfb.display(),
                             "--mic", "lavfi", "--duration", "1"});
    EXPECT_EQ(result.exitCode, 1) << result.output;
    for (const std::string& line : c.says) {
      EXPECT_NE(result.output.find(line), std::string::npos) << result.output;
    }
    const size_t at = result.output.find("the movie stays at ");
    ASSERT_NE(at, std::string::npos) << result.output;
    const std::string movie = result.output.substr(at + 19, result.output.find('\n', at) - at - 19);
    EXPECT_EQ(std::filesystem::path(movie).parent_path(), scratch_.path() + "/tmp");
    EXPECT_TRUE(std::filesystem::exists(movie));
  }
}

TEST_F(CaptureBadInputTest, ADisplayGoingAwayEndsTheBroadcastWithTheMovieSaved) {
  auto xvfb = std::make_unique<testing::XvfbDisplay>("320x240x24");
  if (xvfb->display().empty()) GTEST_SKIP() << "no Xvfb";
  ChildProcessOptions options;
  options.argv = {"env",           "NEMBRA_HOME=" + scratch_.path(),
                  NEMBRA_CLI_PATH, "record-screen",
                  "--app-group",   "gone",
                  "--display",     xvfb->display(),
                  "--mic",         "lavfi"};
  options.stdoutPath = scratch_.file("out");
  options.stderrPath = scratch_.file("err");
  std::unique_ptr<ChildProcess> broadcast;
  ASSERT_FALSE(ChildProcess::start(options, broadcast));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  xvfb.reset();
  const auto code = broadcast->wait(std::chrono::seconds(30));
  ASSERT_TRUE(code);
  EXPECT_EQ(*code, 1);
  EXPECT_NE(testing::readFile(scratch_.file("err")).find("went away"), std::string::npos)
      << testing::readFile(scratch_.file("err"));
  std::string moved = testing::readFile(scratch_.file("out"));
  if (!moved.empty() && moved.back() == '\n') moved.pop_back();
  EXPECT_EQ(std::filesystem::path(moved).parent_path(), shared("gone"));
  EXPECT_TRUE(std::filesystem::exists(moved));
}

TEST_F(CaptureBadInputTest, AFullDiskEndsTheBroadcastWithTheReason) {
  testing::XvfbDisplay xvfb("320x240x24");
  if (xvfb.display().empty()) GTEST_SKIP() << "no Xvfb";
  if (testing::runCommand({"unshare", "-Urm", "true"}).exitCode != 0) {
    GTEST_SKIP() << "no private mount namespace on this machine";
  }
  // The temporary directory, where the movie is written, is a 24 KB file system of its own in a
  // private mount namespace.
  const std::string tmp = scratch_.path() + "/tmp";
  std::filesystem::create_directories(tmp);
  const std::string line = "mount -t tmpfs -o size=24k tmpfs " + quoted(tmp) +
                           " && exec env -u DISPLAY NEMBRA_HOME=" + quoted(scratch_.path()) + " " +
                           quoted(NEMBRA_CLI_PATH) +
                           " --ui none record-screen --app-group full --display " +
                           quoted(xvfb.display()) + " --mic lavfi --duration 4 2>&1";
  const auto result = testing::runCommand({"unshare", "-Urm", "/bin/sh", "-c", line});
  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_NE(result.output.find("No space left on device"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("nembra record-screen: "), std::string::npos) << result.output;
}

}  // namespace
}  // namespace nembra
