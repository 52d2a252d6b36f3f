// The recorder's writer: pictures and PCM made here go in; the file that comes out is probed.
#include "platform/ffmpeg/ffmpeg_movie_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

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

// What |command| prints on both outputs.
std::string run(const std::string& command) {
  std::string output;
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return output;
  char buffer[4096];
  for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    output.append(buffer, got);
  pclose(pipe);
  return output;
}

ino_t inode(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
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

// The finish rewrites the front of the part file instead of copying the media: the finished
// file is the part file renamed, and a reader sees an ordinary file whose every frame decodes.
TEST_F(MovieWriterTest, FinishingKeepsTheMediaWhereItIs) {
  const std::string path = scratch_.path() + "/f.mp4";
  auto writer = record(path, 0, 3.0);
  ASSERT_TRUE(writer);
  const ino_t part = inode(moviePartPath(path));
  ASSERT_FALSE(writer->finish());
  EXPECT_EQ(inode(path), part) << "the media was copied";

  const std::string trace = run("ffprobe -v trace -i " + path);
  std::vector<std::string> atoms;
  const std::regex atom("type:'(\\w{4})' parent:'root'");
  for (std::sregex_iterator it(trace.begin(), trace.end(), atom), end; it != end; ++it) {
    atoms.push_back((*it)[1]);
  }
  const auto moov = std::find(atoms.begin(), atoms.end(), "moov");
  ASSERT_NE(moov, atoms.end()) << trace;
  EXPECT_LT(moov, std::find(atoms.begin(), atoms.end(), "mdat"));
  EXPECT_EQ(std::count(atoms.begin(), atoms.end(), "moof"), 0) << "still fragmented";

  // Every picture and every block of sound is indexed and decodes, without a complaint.
  const std::string counts =
      run("ffprobe -v error -count_packets -count_frames -show_entries "
          "stream=codec_type,nb_frames,nb_read_packets,nb_read_frames -of csv=p=0 " +
          path);
  std::istringstream lines(counts);
  std::string line;
  int streams = 0;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string type, indexed, packets, frames;
    std::getline(fields, type, ',');
    std::getline(fields, indexed, ',');
    std::getline(fields, packets, ',');
    std::getline(fields, frames, ',');
    ++streams;
    EXPECT_EQ(indexed, packets) << line;
    EXPECT_EQ(packets, frames) << line;
    if (type == "video") EXPECT_GE(std::atoi(frames.c_str()), 85) << line;
  }
  EXPECT_EQ(streams, 2) << counts;
  EXPECT_EQ(run("ffmpeg -v error -i " + path + " -f null -"), "");
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
  const ino_t partInode = inode(part);
  ASSERT_FALSE(ffmpegFinishFragmentedMovie(part, path));
  EXPECT_EQ(inode(path), partInode) << "the media was copied";
  EXPECT_GE(probe(path).duration, 2.0);
  // The cut fragment is gone whole: nothing left over that a reader trips on.
  EXPECT_EQ(run("ffmpeg -v error -i " + path + " -f null -"), "");
}

// A part file without room for the index (an older writer's) is finished by copying.
TEST_F(MovieWriterTest, APartFileWithoutRoomForTheIndexIsCopied) {
  const std::string path = scratch_.path() + "/g.mp4";
  const std::string part = moviePartPath(path);
  ASSERT_EQ(run("ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=160x120:rate=30 -t 2 -c:v "
                "libx264 -preset ultrafast -f mp4 -movflags "
                "frag_keyframe+empty_moov+default_base_moof " +
                part),
            "");
  ASSERT_FALSE(ffmpegFinishFragmentedMovie(part, path));
  EXPECT_FALSE(std::filesystem::exists(part));
  EXPECT_NEAR(probe(path).duration, 2.0, 0.1);
  const std::string file = bytes(path);
  EXPECT_LT(file.find("moov"), file.find("mdat"));
  EXPECT_EQ(file.find("moof"), std::string::npos);
}

TEST_F(MovieWriterTest, SoundThatRunsOnPastThePicturesIsCutAtTheEnd) {
  const std::string path = scratch_.path() + "/e.mp4";
  auto writer = record(path, 0, 2.0);
  ASSERT_TRUE(writer);
  // Another 0.1 s of sound after the last picture, as when a stop lands between them.
  for (int64_t audio = 88200; audio < 88200 + 4410; audio += 1024) {
    ASSERT_FALSE(writer->appendAudio(tone(1024, audio), audio / 44100.0));
  }
  ASSERT_FALSE(writer->finish());
  EXPECT_NEAR(probe(path).duration, 2.0, 0.025);
}

TEST_F(MovieWriterTest, RefusesAZeroSize) {
  OptionalError error;
  EXPECT_FALSE(FfmpegMovieWriter::create(scratch_.path() + "/d.mp4", {}, error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind, ErrorKind::InvalidArgument);
}

}  // namespace
}  // namespace nembra
