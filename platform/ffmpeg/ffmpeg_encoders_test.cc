// The FFmpeg-backed encoders and sources, with pictures and PCM made here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "platform/ffmpeg/ffmpeg_aac_encoder.h"
#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_device_source.h"
#include "platform/ffmpeg/ffmpeg_file_source.h"
#include "platform/ffmpeg/ffmpeg_x264_encoder.h"
#include "platform/media/media_encoder_h264_units.h"
#include "platform/media/media_source_pacer.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

namespace nembra {
namespace {

RawMediaFrame Picture(int width, int height, AVPixelFormat format, int shade, double pts) {
  AVFrame* frame = av_frame_alloc();
  frame->format = format;
  frame->width = width;
  frame->height = height;
  EXPECT_EQ(av_frame_get_buffer(frame, 0), 0);
  for (int plane = 0; plane < AV_NUM_DATA_POINTERS && frame->data[plane]; ++plane) {
    const int rows = plane == 0 || format != AV_PIX_FMT_YUV420P ? height : height / 2;
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < frame->linesize[plane]; ++x) {
        frame->data[plane][y * frame->linesize[plane] + x] =
            static_cast<uint8_t>(plane == 0 ? (x + y + shade) : 128);
      }
    }
  }
  return wrapAvFrame(RawMediaFrame::Kind::Video, frame, pts);
}

RawMediaFrame Tone(int sampleRate, int samples, int offset) {
  AVFrame* frame = av_frame_alloc();
  frame->format = AV_SAMPLE_FMT_S16;
  frame->sample_rate = sampleRate;
  frame->nb_samples = samples;
  av_channel_layout_default(&frame->ch_layout, 1);
  EXPECT_EQ(av_frame_get_buffer(frame, 0), 0);
  auto* pcm = reinterpret_cast<int16_t*>(frame->data[0]);
  for (int i = 0; i < samples; ++i) {
    pcm[i] = static_cast<int16_t>(8000 * std::sin(2 * M_PI * 440 * (offset + i) / sampleRate));
  }
  return wrapAvFrame(RawMediaFrame::Kind::Audio, frame, static_cast<double>(offset) / sampleRate);
}

TEST(MediaEncoderX264Test, BaselineKeyFramesEveryTwoSecondsInLengthPrefixedForm) {
  OptionalError error;
  auto encoder = MediaEncoderX264::create({320, 240, 400'000, 10}, error);
  ASSERT_TRUE(encoder) << error->message;
  std::vector<EncodedVideoSample> samples;
  for (int i = 0; i < 25; ++i) {
    // Larger RGB pictures: the encoder scales and converts them itself.
    ASSERT_FALSE(
        encoder->encode(Picture(640, 480, AV_PIX_FMT_RGB24, i * 3, i * 0.1), i * 0.1, samples));
  }
  ASSERT_FALSE(encoder->flush(samples));
  ASSERT_EQ(samples.size(), 25u);
  for (size_t i = 0; i < samples.size(); ++i) {
    const EncodedVideoSample& sample = samples[i];
    EXPECT_EQ(sample.keyFrame, i % 20 == 0) << i;  // 2 x framerate
    EXPECT_NEAR(sample.pts, i * 0.1, 1e-9);        // in order: no reordering
    ASSERT_GE(sample.sps.size(), 4u);
    EXPECT_EQ(sample.sps[0] & 0x1F, h264::kNalSps);
    EXPECT_EQ(sample.sps[1], 66);  // baseline profile
    EXPECT_EQ(sample.pps[0] & 0x1F, h264::kNalPps);
    std::vector<h264::NalUnit> units;
    ASSERT_TRUE(h264::splitLengthPrefixed(sample.data, 4, units));
    for (auto unit : units) {
      EXPECT_NE(h264::nalType(unit), h264::kNalSps);
      EXPECT_NE(h264::nalType(unit), h264::kNalPps);
    }
  }
}

TEST(MediaEncoderX264Test, RefusesOddSize) {
  OptionalError error;
  EXPECT_FALSE(MediaEncoderX264::create({321, 240, 400'000, 30}, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::InvalidArgument);
}

TEST(MediaEncoderAACTest, EncodesUnevenBlocksInto1024SampleFrames) {
  OptionalError error;
  auto encoder = MediaEncoderAAC::create({44100, 2, 128'000}, error);
  ASSERT_TRUE(encoder) << error->message;
  std::vector<EncodedAudioSample> samples;
  int offset = 0;
  for (int block : {300, 1500, 2048, 441, 4000}) {  // mono s16, converted to stereo float
    ASSERT_FALSE(encoder->encode(Tone(44100, block, offset), samples));
    offset += block;
  }
  ASSERT_FALSE(encoder->flush(samples));
  // 8289 samples make 9 frames (the last one short), plus the encoder's priming frame.
  ASSERT_GE(samples.size(), 9u);
  for (size_t i = 1; i < samples.size(); ++i) {
    EXPECT_FALSE(samples[i].data.empty());
    EXPECT_GE(samples[i].pts, samples[i - 1].pts);
    EXPECT_EQ(samples[i].asc, (std::array<uint8_t, 2>{0x12, 0x10}));
  }
  EXPECT_NEAR(samples.back().pts - samples[samples.size() - 2].pts, 1024.0 / 44100, 1e-6);
}

TEST(MediaSourceDeviceTest, TestPatternDeliversSizedPicturesAndTone) {
  OptionalError error;
  auto source = MediaSourceDevice::openTestPattern(320, 180, 25, error);
  ASSERT_TRUE(source) << error->message;
  EXPECT_TRUE(source->info().hasVideo);
  EXPECT_TRUE(source->info().hasAudio);
  EXPECT_FALSE(source->info().videoEncoded);
  EXPECT_EQ(source->info().width, 320);
  int pictures = 0;
  double lastPicture = -1;
  int blocks = 0;
  MediaSourceItem item;
  while (pictures < 10 && source->read(item, error)) {
    auto* raw = std::get_if<RawMediaFrame>(&item);
    ASSERT_NE(raw, nullptr);
    if (raw->kind() == RawMediaFrame::Kind::Video) {
      EXPECT_EQ(raw->width(), 320);
      EXPECT_EQ(raw->height(), 180);
      EXPECT_GT(raw->pts(), lastPicture);
      lastPicture = raw->pts();
      ++pictures;
    } else {
      EXPECT_EQ(raw->sampleRate(), 44100);
      ++blocks;
    }
  }
  EXPECT_FALSE(error);
  EXPECT_EQ(pictures, 10);
  EXPECT_NEAR(lastPicture, 9 / 25.0, 1e-6);
  EXPECT_GT(blocks, 0);
  source->interrupt();
  EXPECT_FALSE(source->read(item, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::Cancelled);
}

TEST(MediaSourceDeviceTest, MissingCameraIsAnError) {
  OptionalError error;
  EXPECT_FALSE(MediaSourceDevice::openCamera("/dev/video-none", 0, 0, 0, error));
  ASSERT_TRUE(error);
  EXPECT_THAT(error->message, testing::HasSubstr("/dev/video-none"));
}

TEST(MediaSourceFileTest, MissingFileIsAFileError) {
  OptionalError error;
  EXPECT_FALSE(MediaSourceFile::open("/nonexistent/clip.mp4", error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::File);
  EXPECT_THAT(error->message, testing::HasSubstr("/nonexistent/clip.mp4"));
}

TEST(MediaSourcePacerTest, DueTimesFollowMediaTimeFromTheFirstItem) {
  const auto anchor = MediaSourcePacer::Clock::time_point(std::chrono::seconds(100));
  using std::chrono::milliseconds;
  EXPECT_EQ(MediaSourcePacer::dueTime(anchor, 2.0, 2.5), anchor + milliseconds(500));
  EXPECT_EQ(MediaSourcePacer::dueTime(anchor, 2.0, 1.0), anchor);  // late items go at once
  std::atomic<bool> stop{false};
  MediaSourcePacer pacer(true);
  const auto start = MediaSourcePacer::Clock::now();
  EXPECT_TRUE(pacer.waitUntilDue(10.0, stop));
  EXPECT_TRUE(pacer.waitUntilDue(10.1, stop));
  EXPECT_GE(MediaSourcePacer::Clock::now() - start, milliseconds(100));
  stop.store(true);
  EXPECT_FALSE(pacer.waitUntilDue(60.0, stop));
}

}  // namespace
}  // namespace nembra
