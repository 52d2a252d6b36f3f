// `nembra trim` against `nembra serve`: the cut of a clip whose pictures carry their numbers is
// uploaded, and the file the service then serves holds exactly the pictures between the cut
// points; input the editor cannot take is refused with a clear message and nothing uploaded.
#include <gtest/gtest.h>

#include "platform/media/testing/numbered_clip.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using testing::runCommand;

std::vector<std::string> tool(const std::string& home, const std::string& server,
                              std::vector<std::string> args) {
  std::vector<std::string> argv = {"/usr/bin/env", "HOME=" + home, NEMBRA_CLI_PATH,
                                   "--server",     server,         "--token",
                                   "app",          "--ui",         "none"};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

std::string lastLine(const std::string& output) {
  std::string text = output;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text.substr(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
}

class TrimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    clip_ = testing::makeNumberedClip(files_, "clip.mp4", 5, 30);
    ASSERT_FALSE(clip_.empty());
  }

  testing::MediaTestFiles files_;
  testing::TempDir home_;
  std::string clip_;
};

TEST_F(TrimTest, UploadsExactlyThePicturesBetweenTheCutPoints) {
  testing::TempDir data;
  testing::ServeProcess::Options options;
  options.dataDir = data.path();
  std::string error;
  auto serve = testing::ServeProcess::start(options, error);
  ASSERT_TRUE(serve) << error;

  auto result =
      runCommand(tool(home_.path(), serve->baseUrl(),
                      {"trim", clip_, "--start", "1.0", "--end", "3.0", "--extra", "title=cut"}),
                 120s);
  ASSERT_EQ(result.exitCode, 0) << result.output;
  const std::string token = lastLine(result.output);
  ASSERT_FALSE(token.empty());

  const std::string served = files_.path("served.mp4");
  auto fetched =
      runCommand({"curl", "-sf", "-o", served,
                  serve->baseUrl() + "/cdn/v1/applications/app/videos/" + token + "/video.mp4"});
  ASSERT_EQ(fetched.exitCode, 0) << fetched.output;
  auto counted = runCommand({"ffprobe", "-v", "error", "-count_frames", "-select_streams", "v:0",
                             "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", served});
  ASSERT_EQ(counted.exitCode, 0) << counted.output;
  EXPECT_EQ(lastLine(counted.output), "60");
  std::vector<int> numbers = testing::readPictureNumbers(files_, served);
  ASSERT_EQ(numbers.size(), 60u);
  for (int i = 0; i < 60; ++i) EXPECT_EQ(numbers[static_cast<size_t>(i)], (30 + i) % 100) << i;
}

TEST_F(TrimTest, RefusesInputItCannotTrim) {
  // No service: nothing may get as far as an upload.
  const std::string server = "http://127.0.0.1:9";
  testing::writeFile(files_.path("notes.mp4"), "not a video");
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"trim", files_.path("missing.mp4"), "--end", "1"}, "no such file: "},
      {{"trim", files_.path("notes.mp4"), "--end", "1"}, "is not a video"},
      {{"trim", clip_, "--start", "2", "--end", "2"}, "--end must come after --start"},
      {{"trim", clip_, "--start", "3", "--end", "1"}, "--end must come after --start"},
      {{"trim", clip_, "--start", "9"}, "--start 9 is past the end of the video (5 s)"},
      {{"trim", "https://cdn.example/v.mp4", "--end", "1"}, "Nembra can trim only local video."},
      {{"trim", clip_}, "with --ui none, say what to keep"},
  };
  for (const Case& c : cases) {
    auto result = runCommand(tool(home_.path(), server, c.args), 60s);
    EXPECT_EQ(result.exitCode, 1) << c.args[1];
    EXPECT_NE(result.output.find("nembra trim: "), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(c.message), std::string::npos) << result.output;
  }
}

}  // namespace
}  // namespace nembra
