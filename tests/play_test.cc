// `nembra play` against `nembra serve`: a video uploaded to the service plays through the caching
// loader, lands in the player's cache, and plays from there with the service gone; a player killed
// mid-download leaves nothing under the token and the next play fills it.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <thread>

#include "platform/media/testing/media_test_files.h"
#include "platform/system/child_process.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::runCommand;

class PlayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    std::string error;
    testing::ServeProcess::Options options;
    options.dataDir = data_.path();
    serve_ = testing::ServeProcess::start(options, error);
    ASSERT_TRUE(serve_) << error;
  }

  // The tool with this test's service, token and home (where the caches live).
  std::vector<std::string> tool(std::vector<std::string> args) {
    std::vector<std::string> argv = {"/usr/bin/env",
                                     "HOME=" + home_.path(),
                                     NEMBRA_CLI_PATH,
                                     "--server",
                                     serve_->baseUrl(),
                                     "--token",
                                     "app",
                                     "--ui",
                                     "none"};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }

  std::string upload(const std::string& path) {
    auto result = runCommand(tool({"upload", path}));
    EXPECT_EQ(result.exitCode, 0) << result.output;
    std::string last =
        result.output.substr(result.output.rfind('\n', result.output.size() - 2) + 1);
    return last.substr(0, last.find('\t'));
  }

  std::string cachedPath(const std::string& token) {
    auto result = runCommand(tool({"cache", "path", "--player", "--type", "video", token}));
    if (result.exitCode != 0) return "";
    return result.output.substr(0, result.output.find('\n'));
  }

  testing::TempDir data_;
  testing::TempDir home_;
  testing::TempDir media_;
  std::unique_ptr<testing::ServeProcess> serve_;
};

TEST_F(PlayTest, FirstPlayFillsTheCacheSecondMakesNoRequest) {
  testing::MediaTestFiles files;
  const std::string clip =
      files.make("clip.mp4",
                 {"-f", "lavfi", "-i", "testsrc=size=160x120:rate=25:duration=2", "-c:v", "libx264",
                  "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-movflags", "+faststart"});
  const std::string token = upload(clip);
  ASSERT_FALSE(token.empty());
  EXPECT_EQ(cachedPath(token), "");

  auto first = runCommand(tool({"--json", "play", token}), 60s);
  ASSERT_EQ(first.exitCode, 0) << first.output;
  EXPECT_NE(first.output.find("{\"event\":\"playerReadyToPlay\"}"), std::string::npos);
  EXPECT_NE(first.output.find("{\"event\":\"playerEnded\"}"), std::string::npos);
  const std::string cached = cachedPath(token);
  ASSERT_FALSE(cached.empty());
  EXPECT_TRUE(testing::readFile(cached) == testing::readFile(clip));

  auto missing = runCommand(tool({"play", "NoSuchToken123"}), 60s);
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.output.find("HTTP 404"), std::string::npos) << missing.output;

  // With the service gone, the cached copy still plays: it needs no request.
  serve_->stop(SIGTERM);
  auto second = runCommand(tool({"--json", "play", token}), 60s);
  ASSERT_EQ(second.exitCode, 0) << second.output;
  EXPECT_NE(second.output.find("{\"event\":\"playerEnded\"}"), std::string::npos);
}

TEST_F(PlayTest, KilledMidDownloadLeavesNoPartialFileUnderTheToken) {
  testing::MediaTestFiles files;
  // A clip large enough to take a while to fetch.
  const std::string clip =
      files.make("big.mp4", {"-f", "lavfi", "-i", "testsrc=size=640x360:rate=25:duration=20",
                             "-c:v", "libx264", "-preset", "ultrafast", "-b:v", "20M", "-pix_fmt",
                             "yuv420p", "-movflags", "+faststart"});
  const std::string token = upload(clip);
  ASSERT_FALSE(token.empty());

  ChildProcessOptions options;
  options.argv = tool({"play", "--no-sound", token});
  options.stdoutPath = media_.path() + "/out";
  options.stderrPath = media_.path() + "/err";
  std::unique_ptr<ChildProcess> player;
  ASSERT_FALSE(ChildProcess::start(options, player));
  std::this_thread::sleep_for(150ms);
  player->signal(SIGKILL);
  while (player->isRunning()) std::this_thread::sleep_for(10ms);
  const std::string cached = cachedPath(token);
  if (!cached.empty()) {
    // The download finished before the kill: then the whole file is there.
    EXPECT_TRUE(testing::readFile(cached) == testing::readFile(clip));
  }

  auto replay = runCommand(tool({"play", "--no-sound", token}), 120s);
  ASSERT_EQ(replay.exitCode, 0) << replay.output;
  const std::string after = cachedPath(token);
  ASSERT_FALSE(after.empty());
  EXPECT_TRUE(testing::readFile(after) == testing::readFile(clip));
  // The dead player's loading directory was cleared by the next one.
  for (const auto& entry : fs::directory_iterator(fs::path(after).parent_path())) {
    EXPECT_EQ(entry.path().filename().string().rfind(".nembra-loader-", 0), std::string::npos)
        << entry.path();
  }
}

}  // namespace
}  // namespace nembra
