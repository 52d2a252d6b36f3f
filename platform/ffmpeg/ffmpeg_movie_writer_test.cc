// The recorder's writer: pictures and PCM made here go in; the file that comes out is probed.
#include "platform/ffmpeg/ffmpeg_movie_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"
#include "platform/http/testing/http_test_support.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

namespace nembra {
namespace {

RawMediaFrame picture(int width, int height, int shade, double pts) {
  AVFrame* frame = av_frame_alloc();
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = width;
  frame->height = height;
  EXPECT_EQ(av_frame_get_buffer(frame, 0), 0);
  for (int plane = 0; plane < 3; ++plane) {
    const int rows = plane == 0 ? height : height / 2;
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < frame->linesize[plane]; ++x) {
        frame->data[plane][y * frame->linesize[plane] + x] =
            static_cast<uint8_t>(plane == 0 ? (x + y + shade) : 128);
      }
    }
  }
  return wrapAvFrame(RawMediaFrame::Kind::Video, frame, pts);
}

RawMediaFrame tone(int samples, int64_t offset) {
  AVFrame* frame = av_frame_alloc();
  frame->format = AV_SAMPLE_FMT_S16;
  frame->sample_rate = 44100;
  frame->nb_samples = samples;
  av_channel_layout_default(&frame->ch_layout, 1);
  EXPECT_EQ(av_frame_get_buffer(frame, 0), 0);
  auto* pcm = reinterpret_cast<int16_t*>(frame->data[0]);
  for (int i = 0; i < samples; ++i) {
    pcm[i] = static_cast<int16_t>(8000 * std::sin(2 * M_PI * 440 * (offset + i) / 44100));
  }
  return wrapAvFrame(RawMediaFrame::Kind::Audio, frame, static_cast<double>(offset) / 44100);
}

std::string bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

class MovieWriterTest : public ::testing::Test {
 protected:
  // |seconds| of 30 fps pictures and 44.1 kHz PCM starting at capture time |start|.
  std::unique_ptr<FfmpegMovieWriter> record(const std::string& path, double start, double seconds) {
    OptionalError error;
    MovieWriterSettings settings;
    settings.width = 320;
    settings.height = 240;
    settings.videoBitrate = 500'000;
    auto writer = FfmpegMovieWriter::create(path, settings, error);
    EXPECT_TRUE(writer) << (error ? error->message : "");
    if (!writer) return nullptr;
    int64_t audio = 0;
    for (int i = 0; i < seconds * 30; ++i) {
      const double t = i / 30.0;
      EXPECT_FALSE(writer->appendVideo(picture(320, 240, i, start + t), start + t));
      for (; audio / 44100.0 < t + 1 / 30.0; audio += 1024) {
        EXPECT_FALSE(writer->appendAudio(tone(1024, audio), start + audio / 44100.0));
      }
    }
    return writer;
  }
  MediaProbeResult probe(const std::string& path) {
    MediaProbeResult result;
    OptionalError error = newFfmpegMediaProbe()->probe(path, result);
    EXPECT_FALSE(error) << error->message;
    return result;
  }

  testing::ScratchDirectory scratch_;
};

TEST_F(MovieWriterTest, FinishesAnOrdinaryMp4WithItsIndexInFront) {
  const std::string path = scratch_.path() + "/a.mp4";
  auto writer = record(path, 12.5, 3.0);
  ASSERT_TRUE(writer);
  EXPECT_TRUE(std::filesystem::exists(moviePartPath(path)));
  ASSERT_FALSE(writer->finish());
  EXPECT_FALSE(std::filesystem::exists(moviePartPath(path)));
  const MediaProbeResult result = probe(path);
  EXPECT_EQ(result.videoCodec, "h264");
  EXPECT_EQ(result.audioCodec, "aac");
  EXPECT_EQ(result.width, 320);
  EXPECT_NEAR(result.duration, 3.0, 0.1);
  const std::string file = bytes(path);
  ASSERT_NE(file.find("moov"), std::string::npos);
  EXPECT_LT(file.find("moov"), file.find("mdat"));
  EXPECT_EQ(file.find("moof"), std::string::npos) << "still fragmented";
}

TEST_F(MovieWriterTest, ARecordingLeftUnfinishedIsRecoveredUpToItsLastFragment) {
  const std::string path = scratch_.path() + "/b.mp4";
  {
    auto writer = record(path, 0, 4.0);
    ASSERT_TRUE(writer);
    // Gone without finish(), as a killed process goes.
  }
  ASSERT_TRUE(std::filesystem::exists(moviePartPath(path)));
  ASSERT_FALSE(ffmpegFinishFragmentedMovie(moviePartPath(path), path));
  EXPECT_FALSE(std::filesystem::exists(moviePartPath(path)));
  const MediaProbeResult result = probe(path);
  EXPECT_TRUE(result.hasVideo);
  EXPECT_GE(result.duration, 3.0);
}

TEST_F(MovieWriterTest, APartFileCutMidFragmentKeepsTheFragmentsBefore) {
  const std::string path = scratch_.path() + "/c.mp4";
  { auto writer = record(path, 0, 4.0); }
  const std::string part = moviePartPath(path);
  std::filesystem::resize_file(part, std::filesystem::file_size(part) - 3000);
  ASSERT_FALSE(ffmpegFinishFragmentedMovie(part, path));
  EXPECT_GE(probe(path).duration, 2.0);
}

TEST_F(MovieWriterTest, RefusesAZeroSize) {
  OptionalError error;
  EXPECT_FALSE(FfmpegMovieWriter::create(scratch_.path() + "/d.mp4", {}, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::InvalidArgument);
}

}  // namespace
}  // namespace nembra
