// `nembra snap` and `nembra qr-scan` end to end with virtual cameras: a picture from FFmpeg's
// test pattern uploaded to `nembra serve` and read back, a QR code made by qrencode read from a
// camera's pictures, and the errors of a missing camera and an unreachable service.
#include <gtest/gtest.h>

#include <sstream>

#include "platform/media/media_backend.h"
#include "platform/media/testing/media_test_files.h"
#include "tests/test_support.h"

namespace nembra {
namespace {

using namespace std::chrono_literals;
using testing::runCommand;
using testing::ServeProcess;
using testing::TempDir;

constexpr const char* kApp = "camapp";

// The last non-empty line a command printed on its standard output.
std::string lastLine(const std::string& output) {
  std::istringstream lines(output);
  std::string last;
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) last = line;
  }
  return last;
}

class CameraCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }
  testing::CommandResult cli(const std::string& server, std::vector<std::string> args) {
    std::vector<std::string> argv = {"/usr/bin/env",
                                     "NEMBRA_HOME=" + scratch_.file("home"),
                                     NEMBRA_CLI_PATH,
                                     "--server",
                                     server,
                                     "--token",
                                     kApp,
                                     "--ui",
                                     "none"};
    argv.insert(argv.end(), args.begin(), args.end());
    return runCommand(argv, 60s);
  }
  TempDir scratch_;
};

TEST_F(CameraCommandsTest, SnapUploadsOnePictureOfTheCamerasSize) {
  ServeProcess::Options options;
  options.dataDir = scratch_.file("data");
  std::string error;
  auto service = ServeProcess::start(options, error);
  ASSERT_TRUE(service) << error;

  auto snapped = cli(service->baseUrl(), {"snap", "--camera", "lavfi", "--size", "480x272",
                                          "--extra", "title=snapshot"});
  ASSERT_EQ(snapped.exitCode, 0) << snapped.output;
  const std::string token = lastLine(snapped.output);
  ASSERT_FALSE(token.empty());

  auto listed = cli(service->baseUrl(), {"images", "list", "--json"});
  EXPECT_NE(listed.output.find(token), std::string::npos) << listed.output;
  EXPECT_NE(listed.output.find("\"snapshot\""), std::string::npos) << listed.output;

  const std::string copy = scratch_.file("copy.jpg");
  auto downloaded = cli(service->baseUrl(), {"images", "download", token, "-o", copy});
  ASSERT_EQ(downloaded.exitCode, 0) << downloaded.output;
  const std::string bytes = testing::readFile(copy);
  ImageInfo info;
  ASSERT_FALSE(MediaBackend::shared().makeImageCodec()->inspect(
      {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, info));
  EXPECT_EQ(info.format, "jpeg");
  EXPECT_EQ(info.width, 480);
  EXPECT_EQ(info.height, 272);
}

TEST_F(CameraCommandsTest, SnapFailsClearlyWithoutACameraOrAService) {
  auto noCamera = cli("http://127.0.0.1:9", {"snap", "--camera", "/dev/nonexistent-video"});
  EXPECT_EQ(noCamera.exitCode, 1);
  EXPECT_NE(noCamera.output.find("nembra snap: no camera at /dev/nonexistent-video"),
            std::string::npos)
      << noCamera.output;

  const int port = testing::freeTcpPort();
  auto noService = cli("http://127.0.0.1:" + std::to_string(port),
                       {"snap", "--camera", "lavfi", "--size", "160x120"});
  EXPECT_EQ(noService.exitCode, 1);
  EXPECT_NE(noService.output.find("nembra snap: "), std::string::npos) << noService.output;
  EXPECT_NE(noService.output.find("upload"), std::string::npos) << noService.output;
}

TEST_F(CameraCommandsTest, QrScanPrintsTheTextOfACodeShownToTheCamera) {
  if (!testing::findProgram("qrencode")) GTEST_SKIP() << "qrencode is not installed";
  const std::string png = scratch_.file("code.png");
  auto made = runCommand({"qrencode", "-o", png, "-s", "5", "https://example.org/a?b=1"});
  ASSERT_EQ(made.exitCode, 0) << made.output;
  const std::string camera = "lavfi:movie=" + png +
                             ":loop=0,setpts=N/10/TB,pad=640:480:(ow-iw)/2:(oh-ih)/2:white,"
                             "format=yuv420p,realtime";
  auto scanned = cli("http://127.0.0.1:9", {"qr-scan", "--camera", camera, "--timeout", "20"});
  ASSERT_EQ(scanned.exitCode, 0) << scanned.output;
  EXPECT_EQ(lastLine(scanned.output), "https://example.org/a?b=1");

  // The test pattern holds no code: the scan gives up at its timeout.
  auto none = cli("http://127.0.0.1:9",
                  {"qr-scan", "--camera", "lavfi", "--size", "320x240", "--timeout", "1"});
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_NE(none.output.find("no QR code read within 1 s"), std::string::npos) << none.output;
}

}  // namespace
}  // namespace nembra
