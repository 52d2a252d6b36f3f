#include <gtest/gtest.h>

#include <fstream>

#include "platform/media/media_log.h"
#include "platform/media/media_probe.h"
#include "platform/media/media_trimmer.h"
#include "platform/media/testing/numbered_clip.h"

namespace nembra {
namespace {

class MediaTrimmerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setMediaLogLevel(MediaLogLevel::Errors);
    if (!testing::MediaTestFiles::haveFfmpeg()) GTEST_SKIP() << "no ffmpeg program";
    clip_ = testing::makeNumberedClip(files_, "clip.mp4", 5, 30);
    ASSERT_FALSE(clip_.empty());
  }

  // The source picture numbers of the cut [start, end).
  std::vector<int> cut(double start, double end) {
    const std::string output = files_.path("cut.mp4");
    if (auto error = trimmer_->trim(clip_, output, start, end)) {
      ADD_FAILURE() << error->message;
      return {};
    }
    return testing::readPictureNumbers(files_, output);
  }

  testing::MediaTestFiles files_;
  std::unique_ptr<MediaTrimmer> trimmer_ = makeMediaTrimmer();
  std::string clip_;
};

std::vector<int> range(int first, int count) {
  std::vector<int> numbers;
  for (int i = 0; i < count; ++i) numbers.push_back((first + i) % 100);
  return numbers;
}

TEST_F(MediaTrimmerTest, DescribesTheSource) {
  TrimSource source;
  ASSERT_FALSE(trimmer_->describe(clip_, source));
  EXPECT_NEAR(source.duration, 5.0, 0.05);
  EXPECT_DOUBLE_EQ(source.frameRate, 30.0);
  EXPECT_EQ(source.width, testing::kNumberedClipWidth);
  EXPECT_TRUE(source.hasAudio);
}

// Cut points off the key frames (every 2 s), on them, at the very start and up to the end:
// every picture between the points, and no other, in order.
TEST_F(MediaTrimmerTest, KeepsExactlyThePicturesBetweenTheCutPoints) {
  struct Case {
    double start, end;
    int first, count;
  } cases[] = {
      {1.0, 3.0, 30, 60},
      {2.0, 2.5, 60, 15},
      {0.0, 0.1, 0, 3},
      {4.5, 5.0, 135, 15},
      {1.0 + 1.0 / 30, 1.0 + 2.0 / 30, 31, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.start) + " - " + std::to_string(c.end));
    EXPECT_EQ(cut(c.start, c.end), range(c.first, c.count));
  }
}

TEST_F(MediaTrimmerTest, KeepsTheSoundOfTheCutOnly) {
  const std::string output = files_.path("cut.mp4");
  ASSERT_FALSE(trimmer_->trim(clip_, output, 1.0, 3.0));
  MediaProbeResult result;
  ASSERT_FALSE(makeMediaProbe()->probe(output, result));
  EXPECT_TRUE(result.hasAudio);
  EXPECT_NEAR(result.duration, 2.0, 0.1);
}

TEST_F(MediaTrimmerTest, RefusesWhatCannotBeCut) {
  const std::string output = files_.path("cut.mp4");
  EXPECT_TRUE(trimmer_->trim(clip_, output, 3.0, 3.0));
  EXPECT_TRUE(trimmer_->trim(clip_, output, 6.0, 7.0));  // past the end: no picture
  EXPECT_FALSE(std::filesystem::exists(output));
  std::ofstream(files_.path("text.mp4")) << "not a video";
  TrimSource source;
  EXPECT_TRUE(trimmer_->describe(files_.path("text.mp4"), source));
  EXPECT_TRUE(trimmer_->describe(files_.path("missing.mp4"), source));
}

}  // namespace
}  // namespace nembra
