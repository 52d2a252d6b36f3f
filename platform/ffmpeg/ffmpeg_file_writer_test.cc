// The file writer: what it writes is read back with libavformat.
#include "platform/ffmpeg/ffmpeg_file_writer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>

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

// Pictures stamped as a busy machine delivers them still make a movie of constant frame rate
// and the right length: bursts are thinned out, stalls filled.
struct Arrivals {
  const char* name;
  std::vector<double> seconds;
};

void PrintTo(const Arrivals& arrivals, std::ostream* out) { *out << arrivals.name; }

std::vector<double> steady(int from, int to, double fps, double jitter = 0) {
  std::vector<double> times;
  for (int i = from; i < to; ++i) times.push_back(i / fps + ((i % 2) ? jitter : -jitter));
  return times;
}

std::vector<double> joined(std::vector<double> a, const std::vector<double>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class FfmpegFileWriterFrameRateTest : public ::testing::TestWithParam<Arrivals> {};

TEST_P(FfmpegFileWriterFrameRateTest, KeepsOnePictureASlotFromStartToEnd) {
  constexpr int kFps = 30;
  testing::MediaTestFiles files;
  MediaFileWriterSettings settings;
  settings.path = files.path("rate.mov");
  settings.width = 64;
  settings.height = 48;
  settings.frameRate = kFps;
  OptionalError error;
  auto writer = FfmpegFileWriter::create(settings, error);
  ASSERT_TRUE(writer) << error->message;
  auto source = MediaSourceDevice::openTestPattern(64, 48, kFps, error);
  ASSERT_TRUE(source);
  MediaSourceItem item;
  for (double seconds : GetParam().seconds) {
    do {
      ASSERT_TRUE(source->read(item, error));
    } while (std::get<RawMediaFrame>(item).kind() != RawMediaFrame::Kind::Video);
    ASSERT_FALSE(writer->appendVideo(std::get<RawMediaFrame>(item), seconds));
  }
  ASSERT_FALSE(writer->finish());
  const double last = GetParam().seconds.back();
  const int64_t slots = std::llround(last * kFps) + 1;
  EXPECT_NEAR(writer->videoFramesWritten(), slots, 1);

  std::string message;
  AvInput input = openAvInput(settings.path, message);
  ASSERT_TRUE(input) << message;
  std::vector<double> pts;
  AVPacket* packet = av_packet_alloc();
  while (av_read_frame(input.get(), packet) >= 0) {
    pts.push_back(packet->pts * av_q2d(input->streams[packet->stream_index]->time_base));
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  std::sort(pts.begin(), pts.end());
  ASSERT_EQ(static_cast<int64_t>(pts.size()), writer->videoFramesWritten());
  for (size_t i = 1; i < pts.size(); ++i) {
    ASSERT_NEAR(pts[i] - pts[i - 1], 1.0 / kFps, 0.002)
        << "between pictures " << i - 1 << " and " << i;
  }
  EXPECT_NEAR(pts.back() - pts.front(), last, 1.5 / kFps);
}

INSTANTIATE_TEST_SUITE_P(
    Arrivals, FfmpegFileWriterFrameRateTest,
    ::testing::Values(Arrivals{"OnTime", steady(0, 45, 30)},
                      Arrivals{"Jittering", steady(0, 45, 30, 0.012)},
                      // Nothing for a third of a second, then what was held back all at once.
                      Arrivals{"StallThenBurst",
                               joined(joined(steady(0, 10, 30), {0.65, 0.652, 0.654, 0.656, 0.658}),
                                      steady(21, 45, 30))},
                      // Late from the start (the first picture opened the encoder).
                      Arrivals{"LateFirstPicture", steady(6, 40, 30)}),
    [](const ::testing::TestParamInfo<Arrivals>& info) { return std::string(info.param.name); });

// Pictures are encoded and written on the writer's own thread: its failure comes back to the
// caller's next append, and the caller is not left waiting on a full queue.
TEST(FfmpegFileWriterTest, AWriteFailureUnderPicturesFailsTheAppends) {
  testing::MediaTestFiles files;
  MediaFileWriterSettings settings;
  settings.path = files.path("capped.mov");
  settings.width = 320;
  settings.height = 240;
  OptionalError error;
  auto writer = FfmpegFileWriter::create(settings, error);
  ASSERT_TRUE(writer) << error->message;
  auto source = MediaSourceDevice::openTestPattern(320, 240, 30, error);
  ASSERT_TRUE(source);
  // Files may not grow past 64 KiB for a while: the movie's writes fail (EFBIG).
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit capped = saved;
  capped.rlim_cur = 64 * 1024;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &capped), 0);
  MediaSourceItem item;
  int appended = 0;
  OptionalError appendError;
  while (!appendError && appended < 3000 && source->read(item, error)) {
    auto& raw = std::get<RawMediaFrame>(item);
    if (raw.kind() != RawMediaFrame::Kind::Video) continue;
    appendError = writer->appendVideo(raw, appended / 30.0);
    ++appended;
  }
  const OptionalError finished = writer->finish();
  setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);
  ASSERT_TRUE(appendError) << "no failure after " << appended << " pictures";
  EXPECT_NE(appendError->message.find("capped.mov"), std::string::npos) << appendError->message;
  ASSERT_TRUE(finished);
  EXPECT_EQ(finished->message, appendError->message);
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
