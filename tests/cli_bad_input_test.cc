// `nembra show` and `nembra images show` given what cannot be shown: each must end with one
// plain message on standard error naming what went wrong, exit code 1, and no crash or FFmpeg
// chatter; uploads and tokens that cannot go are refused and leave nothing behind. Runs the
// built tool against a real `nembra serve`.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/media/testing/media_test_files.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using testing::runCommand;

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

struct Outcome {
  int exitCode = -1;
  std::string out;
  std::string err;
};

class CliBadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
    std::string error;
    testing::ServeProcess::Options options;
    options.dataDir = scratch_.file("data");
    serve_ = testing::ServeProcess::start(options, error);
    ASSERT_TRUE(serve_) << error;
  }

  // The tool with |args| after the global options; standard error kept apart from the rest.
  Outcome run(const std::vector<std::string>& args) { return runAt(serve_->baseUrl(), args); }
  Outcome runAt(const std::string& server, const std::vector<std::string>& args) {
    std::string line = "NEMBRA_HOME=" + quoted(home()) + " " + quoted(NEMBRA_CLI_PATH) +
                       " --server " + quoted(server) + " --ui none";
    if (std::find(args.begin(), args.end(), "--token") == args.end()) line += " --token app1";
    for (const std::string& arg : args) line += " " + quoted(arg);
    const std::string errPath = scratch_.file("stderr");
    auto result = runCommand({"/bin/sh", "-c", line + " 2>" + quoted(errPath)});
    return {result.exitCode, result.output, testing::readFile(errPath)};
  }

  std::string home() const { return scratch_.file("home"); }

  testing::TempDir scratch_{"nembra-cli-bad-input"};
  testing::MediaTestFiles media_;
  std::unique_ptr<testing::ServeProcess> serve_;
};

TEST_F(CliBadInputTest, EachFailureIsOneClearLineAndExitCodeOne) {
  const std::string jpeg =
      media_.make("whole.jpg", {"-f", "lavfi", "-i", "testsrc2=size=640x480", "-frames:v", "1"});
  ASSERT_FALSE(jpeg.empty());
  const std::string bytes = testing::readFile(jpeg);
  const std::string cut = scratch_.file("cut.jpg");
  testing::writeFile(cut, bytes.substr(0, bytes.size() * 6 / 10));
  const std::string html = scratch_.file("page.png");
  testing::writeFile(html, "<html><body>Not Found</body></html>\n");
  const std::string missing = scratch_.file("missing.jpg");
  const std::string nowhere =
      "http://127.0.0.1:" + std::to_string(testing::freeTcpPort()) + "/a.jpg";
  const std::string absent = serve_->baseUrl() + "/files/no/such/picture.jpg";

  struct Case {
    const char* what;
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {"missing file", {"show", missing}, "No such file or directory"},
      {"html named .png", {"show", html}, "not a picture of a known format"},
      {"truncated jpeg", {"show", cut}, "the jpeg picture is truncated"},
      {"url answering 404", {"show", absent}, "HTTP 404"},
      {"nothing listening", {"show", nowhere}, "Couldn't connect"},
      {"unknown image token", {"images", "show", "unknowntoken"}, "HTTP 404"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Outcome outcome = run(c.args);
    EXPECT_EQ(outcome.exitCode, 1) << outcome.err;
    EXPECT_EQ(outcome.err.rfind("nembra show: ", 0), 0u) << outcome.err;
    EXPECT_NE(outcome.err.find(c.message), std::string::npos) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }

  // The whole picture beside a bad one: shown, and the run still fails for the bad one.
  const Outcome mixed = run({"show", jpeg, cut});
  EXPECT_EQ(mixed.exitCode, 1);
  EXPECT_NE(mixed.out.find("640 x 480 jpeg"), std::string::npos) << mixed.out;
  EXPECT_NE(mixed.err.find("truncated"), std::string::npos) << mixed.err;
}

TEST_F(CliBadInputTest, UploadsAndTokensThatCannotGoAreRefusedAndLeaveNothingBehind) {
  namespace fs = std::filesystem;
  const std::string clip = scratch_.file("clip.mp4");
  testing::writeFile(clip, std::string(4096, 'v'));
  const std::string nowhere = "http://127.0.0.1:" + std::to_string(testing::freeTcpPort());

  const Outcome directory = run({"upload", scratch_.path()});
  EXPECT_EQ(directory.exitCode, 1);
  EXPECT_NE(directory.err.find("is a directory"), std::string::npos) << directory.err;

  // A path that is not there is a missing file, not a token.
  const Outcome absentMovie = run({"play", scratch_.file("absent.mp4")});
  EXPECT_EQ(absentMovie.exitCode, 1);
  EXPECT_NE(absentMovie.err.find("nembra play: no such file: "), std::string::npos)
      << absentMovie.err;

  // The service is down: the upload fails before it has an upload URL, and the copy or link
  // made for the SDK goes with it.
  const Outcome down = runAt(nowhere, {"upload", clip});
  EXPECT_EQ(down.exitCode, 1);
  EXPECT_NE(down.err.find(clip), std::string::npos) << down.err;
  EXPECT_TRUE(fs::exists(clip));
  std::error_code ec;
  for (fs::recursive_directory_iterator it(home(), ec), end; !ec && it != end; it.increment(ec)) {
    EXPECT_FALSE(it->is_regular_file()) << "left behind: " << it->path();
  }

  const Outcome url = run({"videos", "url", "../x"});
  EXPECT_EQ(url.exitCode, 2);
  EXPECT_NE(url.err.find("not a valid token"), std::string::npos) << url.err;
  EXPECT_EQ(url.out, "");

  const Outcome app = run({"--token", "../../x", "videos", "list"});
  EXPECT_NE(app.exitCode, 0);
  EXPECT_NE(app.err.find("application token"), std::string::npos) << app.err;
}

}  // namespace
}  // namespace nembra
