#include <gtest/gtest.h>

#include <fstream>

#include "platform/media/frame_grabber.h"
#include "platform/media/media_probe.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

class FrameGrabberTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }

  // The grabbed JPEG, written out and probed back: proves it decodes and gives its size.
  MediaProbeResult reread(const GrabbedFrame& frame) {
    std::string path = files_.path("grab" + std::to_string(count_++) + ".jpg");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(frame.jpeg.data()),
               static_cast<std::streamsize>(frame.jpeg.size()));
    MediaProbeResult result;
    EXPECT_FALSE(makeMediaProbe()->probe(path, result));
    return result;
  }

  testing::MediaTestFiles files_;
  std::unique_ptr<FrameGrabber> grabber_ = makeFrameGrabber();
  int count_ = 0;
};

TEST_F(FrameGrabberTest, GrabsAJpegThatFitsInsideTheBox) {
  std::string big = files_.video("big.mp4", "2560x1440", 0.5, false);
  ASSERT_FALSE(big.empty());
  GrabbedFrame frame;
  ASSERT_FALSE(grabber_->grab(big, FrameGrabOptions{}, frame));
  ASSERT_GE(frame.jpeg.size(), 3u);
  EXPECT_EQ(frame.jpeg[0], 0xFF);
  EXPECT_EQ(frame.jpeg[1], 0xD8);
  EXPECT_EQ(frame.width, 1920);
  EXPECT_EQ(frame.height, 1080);
  MediaProbeResult decoded = reread(frame);
  EXPECT_EQ(decoded.width, 1920);
  EXPECT_EQ(decoded.height, 1080);
}

TEST_F(FrameGrabberTest, NeverEnlargesAndTurnsSidewaysRecordings) {
  std::string small = files_.video("small.mp4", "320x240", 0.5, false);
  std::string turned =
      files_.make("turned.mp4", {"-i", small, "-c", "copy", "-metadata:s:v:0", "rotate=90"});
  ASSERT_FALSE(turned.empty());
  GrabbedFrame upright, sideways;
  ASSERT_FALSE(grabber_->grab(small, FrameGrabOptions{}, upright));
  EXPECT_EQ(upright.width, 320);
  EXPECT_EQ(upright.height, 240);
  ASSERT_FALSE(grabber_->grab(turned, FrameGrabOptions{}, sideways));
  EXPECT_EQ(sideways.width, 240);
  EXPECT_EQ(sideways.height, 320);
  EXPECT_EQ(reread(sideways).width, 240);
  FrameGrabOptions asStored;
  asStored.applyRotation = false;
  ASSERT_FALSE(grabber_->grab(turned, asStored, sideways));
  EXPECT_EQ(sideways.width, 320);
}

TEST_F(FrameGrabberTest, RefusesFilesWithoutPictures) {
  std::string aac = files_.make("a.aac", {"-f", "lavfi", "-i", "sine=duration=1", "-c:a", "aac"});
  GrabbedFrame frame;
  auto error = grabber_->grab(aac, FrameGrabOptions{}, frame);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Media);
}

struct FitCase {
  int width, height, maxWidth, maxHeight, fitWidth, fitHeight;
};

class FitInsideTest : public ::testing::TestWithParam<FitCase> {};

TEST_P(FitInsideTest, KeepsTheAspectWithEvenSides) {
  const FitCase& c = GetParam();
  int w = 0, h = 0;
  fitInside(c.width, c.height, c.maxWidth, c.maxHeight, w, h);
  EXPECT_EQ(w, c.fitWidth);
  EXPECT_EQ(h, c.fitHeight);
}

INSTANTIATE_TEST_SUITE_P(Sizes, FitInsideTest,
                         ::testing::Values(FitCase{3840, 2160, 1920, 1080, 1920, 1080},
                                           FitCase{1080, 1920, 1920, 1080, 608, 1080},
                                           FitCase{640, 480, 1920, 1080, 640, 480},
                                           FitCase{641, 481, 1920, 1080, 642, 482},
                                           FitCase{4000, 100, 1920, 1080, 1920, 48},
                                           FitCase{1, 1, 1920, 1080, 2, 2}));

}  // namespace
}  // namespace nembra
