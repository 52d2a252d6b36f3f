// The file writer: what it writes is read back with libavformat.
#include "platform/ffmpeg/ffmpeg_file_writer.h"

#include <gtest/gtest.h>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_device_source.h"
#include "platform/media/testing/media_test_files.h"

namespace nembra {
namespace {

struct Track {
  AVCodecID codec = AV_CODEC_ID_NONE;
  int channels = 0;
  int sampleRate = 0;
  int width = 0;
  double seconds = 0;
};

std::vector<Track> readTracks(const std::string& path, std::string& format) {
  std::string error;
  AvInput input = openAvInput(path, error);
  EXPECT_TRUE(input) << error;
  std::vector<Track> tracks;
  if (!input) return tracks;
  format = input->iformat->name;
  for (unsigned i = 0; i < input->nb_streams; ++i) {
    const AVStream* stream = input->streams[i];
    Track track;
    track.codec = stream->codecpar->codec_id;
    track.channels = stream->codecpar->ch_layout.nb_channels;
    track.sampleRate = stream->codecpar->sample_rate;
    track.width = stream->codecpar->width;
    track.seconds = static_cast<double>(stream->duration) * av_q2d(stream->time_base);
    tracks.push_back(track);
  }
  return tracks;
}

TEST(FfmpegFileWriterTest, PausedStretchesLeaveNoGapInALosslessAudioFile) {
  testing::MediaTestFiles files;
  MediaFileWriterSettings settings;
  settings.path = files.path("take.m4a");
  settings.container = "ipod";
  settings.audioCodec = "alac";
  OptionalError error;
  auto writer = FfmpegFileWriter::create(settings, error);
  ASSERT_TRUE(writer) << error->message;
  // The test pattern's tone is mono; the file is stereo at 44100 Hz. Every other second is
  // skipped as a pause would skip it: the file holds only what was appended, back to back.
  auto source = MediaSourceDevice::openTestPattern(64, 64, 5, error);
  ASSERT_TRUE(source);
  MediaSourceItem item;
  int64_t appended = 0;
  float loudest = -160;
  while (appended < 2 * 44100 && source->read(item, error)) {
    auto& raw = std::get<RawMediaFrame>(item);
    if (raw.kind() != RawMediaFrame::Kind::Audio) continue;
    if (static_cast<int>(raw.pts()) % 2 == 1) continue;
    ASSERT_FALSE(writer->appendAudio(raw));
    appended += raw.sampleCount();
    loudest = std::max(loudest, writer->lastAudioLevel());
  }
  EXPECT_EQ(writer->audioSamplesWritten(), appended);
  EXPECT_GT(loudest, -40.0f);  // the beeps were metered
  ASSERT_FALSE(writer->finish());

  std::string format;
  auto tracks = readTracks(settings.path, format);
  ASSERT_EQ(tracks.size(), 1u);
  EXPECT_EQ(tracks[0].codec, AV_CODEC_ID_ALAC);
  EXPECT_EQ(tracks[0].channels, 2);
  EXPECT_EQ(tracks[0].sampleRate, 44100);
  EXPECT_NEAR(tracks[0].seconds, appended / 44100.0, 0.1);
}

TEST(FfmpegFileWriterTest, MovieHoldsH264AndAacAtTheGivenSize) {
  testing::MediaTestFiles files;
  MediaFileWriterSettings settings;
  settings.path = files.path("screen.mov");
  settings.width = 320;
  settings.height = 240;
  settings.frameRate = 25;
  settings.audioCodec = "aac";
  settings.audioBitRate = 128000;
  OptionalError error;
  auto writer = FfmpegFileWriter::create(settings, error);
  ASSERT_TRUE(writer) << error->message;
  auto source = MediaSourceDevice::openTestPattern(320, 240, 25, error);
  ASSERT_TRUE(source);
  MediaSourceItem item;
  while (writer->videoFramesWritten() < 25 && source->read(item, error)) {
    auto& raw = std::get<RawMediaFrame>(item);
    if (raw.kind() == RawMediaFrame::Kind::Video) {
      ASSERT_FALSE(writer->appendVideo(raw, raw.pts()));
      ASSERT_FALSE(writer->appendVideo(raw, raw.pts()));  // a repeat is dropped
    } else {
      ASSERT_FALSE(writer->appendAudio(raw));
    }
  }
  ASSERT_FALSE(writer->finish());
  EXPECT_EQ(writer->videoFramesWritten(), 25);

  std::string format;
  auto tracks = readTracks(settings.path, format);
  ASSERT_EQ(tracks.size(), 2u);
  EXPECT_NE(format.find("mov"), std::string::npos);
  EXPECT_EQ(tracks[0].codec, AV_CODEC_ID_H264);
  EXPECT_EQ(tracks[0].width, 320);
  EXPECT_NEAR(tracks[0].seconds, 1.0, 0.1);
  EXPECT_EQ(tracks[1].codec, AV_CODEC_ID_AAC);
  EXPECT_EQ(tracks[1].channels, 2);
}

TEST(FfmpegFileWriterTest, FullDiskIsAFileError) {
  MediaFileWriterSettings settings;
  settings.path = "/dev/full";
  settings.container = "ipod";
  settings.audioCodec = "alac";
  OptionalError error;
  auto writer = FfmpegFileWriter::create(settings, error);
  if (writer) {
    auto source = MediaSourceDevice::openTestPattern(64, 64, 5, error);
    ASSERT_TRUE(source);
    MediaSourceItem item;
    for (int i = 0; i < 200 && !error && source->read(item, error);) {
      auto& raw = std::get<RawMediaFrame>(item);
      if (raw.kind() != RawMediaFrame::Kind::Audio) continue;
      error = writer->appendAudio(raw);
      ++i;
    }
    if (!error) error = writer->finish();
  }
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::File) << error->message;
  EXPECT_NE(error->message.find("/dev/full"), std::string::npos);
}

}  // namespace
}  // namespace nembra
