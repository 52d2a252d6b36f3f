#include <gtest/gtest.h>

#include <fstream>

#include "platform/media/media_probe.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

class MediaProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed";
  }
  testing::MediaTestFiles files_;
  std::unique_ptr<MediaProbe> probe_ = makeMediaProbe();
};

TEST_F(MediaProbeTest, ReadsSizeDurationAndTracks) {
  std::string mp4 = files_.video("a.mp4", "320x240", 2.0);
  ASSERT_FALSE(mp4.empty());
  MediaProbeResult result;
  ASSERT_FALSE(probe_->probe(mp4, result));
  EXPECT_EQ(result.width, 320);
  EXPECT_EQ(result.height, 240);
  EXPECT_NEAR(result.duration, 2.0, 0.1);
  EXPECT_TRUE(result.hasVideo);
  EXPECT_TRUE(result.hasAudio);
  EXPECT_EQ(result.videoCodec, "h264");
  EXPECT_EQ(result.audioCodec, "aac");
}

TEST_F(MediaProbeTest, ReportsTheDisplayedSizeOfARotatedRecording) {
  std::string mp4 = files_.make("rotated.mp4", {"-i", files_.video("src.mp4", "320x240", 1.0), "-c",
                                                "copy", "-metadata:s:v:0", "rotate=90"});
  ASSERT_FALSE(mp4.empty());
  MediaProbeResult result;
  ASSERT_FALSE(probe_->probe(mp4, result));
  EXPECT_TRUE(result.rotation == 90 || result.rotation == 270) << result.rotation;
  EXPECT_EQ(result.width, 240);
  EXPECT_EQ(result.height, 320);
}

TEST_F(MediaProbeTest, TellsSoundOnlyFilesAndStillsApart) {
  std::string aac = files_.make("a.aac", {"-f", "lavfi", "-i", "sine=duration=1.5", "-c:a", "aac"});
  std::string jpg =
      files_.make("a.jpg", {"-f", "lavfi", "-i", "testsrc2=size=64x48", "-frames:v", "1"});
  MediaProbeResult sound, still;
  ASSERT_FALSE(probe_->probe(aac, sound));
  EXPECT_TRUE(sound.hasAudio);
  EXPECT_FALSE(sound.hasVideo);
  EXPECT_NEAR(sound.duration, 1.5, 0.2);
  ASSERT_FALSE(probe_->probe(jpg, still));
  EXPECT_TRUE(still.hasVideo);
  EXPECT_EQ(still.width, 64);
  EXPECT_EQ(still.height, 48);
}

TEST_F(MediaProbeTest, RefusesWhatIsNotMediaWithTheRightKind) {
  std::string text = files_.path("notes.txt");
  std::ofstream(text) << "just some words, nothing to play";
  MediaProbeResult result;
  auto notMedia = probe_->probe(text, result);
  ASSERT_TRUE(notMedia);
  EXPECT_EQ(notMedia->kind, ErrorKind::Media);
  auto missing = probe_->probe(files_.path("missing.mp4"), result);
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->kind, ErrorKind::File);
}

}  // namespace
}  // namespace nembra
