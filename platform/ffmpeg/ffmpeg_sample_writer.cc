#include <cmath>
#include <cstdio>
#include <fstream>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_encode_sink.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace nembra {

namespace {

constexpr int kSampleRate = 44100;
constexpr int kFrameRate = 25;

// Diagonal colour bands that move one step per picture, so every picture differs.
OptionalError drawPattern(AVFrame& picture, int index) {
  if (av_frame_make_writable(&picture) < 0) return Error::internal("out of memory");
  for (int y = 0; y < picture.height; ++y) {
    for (int x = 0; x < picture.width; ++x) {
      picture.data[0][y * picture.linesize[0] + x] =
          static_cast<uint8_t>((x + y + index * 4) & 0xFF);
    }
  }
  for (int y = 0; y < picture.height / 2; ++y) {
    for (int x = 0; x < picture.width / 2; ++x) {
      picture.data[1][y * picture.linesize[1] + x] = static_cast<uint8_t>((x * 2 + index) & 0xFF);
      picture.data[2][y * picture.linesize[2] + x] = static_cast<uint8_t>((y * 2 + 128) & 0xFF);
    }
  }
  return std::nullopt;
}

OptionalError writeTone(MediaEncodeSink& sink, double seconds) {
  const int total = static_cast<int>(seconds * kSampleRate);
  const int block = 1024;
  for (int first = 0; first < total; first += block) {
    AvFrame frame(av_frame_alloc());
    if (!frame) return Error::internal("out of memory");
    frame->nb_samples = std::min(block, total - first);
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = kSampleRate;
    av_channel_layout_default(&frame->ch_layout, 1);
    if (av_frame_get_buffer(frame.get(), 0) < 0) return Error::internal("out of memory");
    auto* samples = reinterpret_cast<float*>(frame->data[0]);
    for (int i = 0; i < frame->nb_samples; ++i) {
      samples[i] =
          0.3f * static_cast<float>(std::sin(2 * M_PI * 440.0 * (first + i) / kSampleRate));
    }
    if (auto error = sink.writeSound(*frame)) return error;
  }
  return std::nullopt;
}

}  // namespace

OptionalError ffmpegWriteVideoSample(const std::string& path, double seconds, int width,
                                     int height) {
  EncodeSettings settings;
  settings.format = "mp4";
  settings.width = width & ~1;
  settings.height = height & ~1;
  settings.frameRate = kFrameRate;
  settings.videoBitRate = 400000;
  settings.sampleRate = kSampleRate;
  std::unique_ptr<MediaEncodeSink> sink;
  if (auto error = MediaEncodeSink::open(path, settings, sink)) return error;
  AvFrame picture = allocateAvPicture(AV_PIX_FMT_YUV420P, settings.width, settings.height);
  if (!picture) return Error::internal("out of memory");
  const int pictures = std::max(1, static_cast<int>(seconds * kFrameRate));
  for (int i = 0; i < pictures; ++i) {
    if (auto error = drawPattern(*picture, i)) return error;
    if (auto error = sink->writePicture(*picture, static_cast<double>(i) / kFrameRate)) {
      return error;
    }
  }
  if (auto error = writeTone(*sink, seconds)) return error;
  return sink->finish();
}

OptionalError ffmpegWriteAudioSample(const std::string& path, double seconds) {
  EncodeSettings settings;
  settings.format = "adts";
  settings.sampleRate = kSampleRate;
  std::unique_ptr<MediaEncodeSink> sink;
  if (auto error = MediaEncodeSink::open(path, settings, sink)) return error;
  if (auto error = writeTone(*sink, seconds)) return error;
  return sink->finish();
}

OptionalError ffmpegWritePictureSample(const std::string& path, int width, int height) {
  AvFrame picture = allocateAvPicture(AV_PIX_FMT_YUVJ420P, width & ~1, height & ~1);
  if (!picture) return Error::internal("out of memory");
  if (auto error = drawPattern(*picture, 0)) return error;
  std::vector<uint8_t> jpeg;
  if (auto error = encodeAvJpeg(*picture, 3, jpeg)) return error;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(jpeg.data()), static_cast<std::streamsize>(jpeg.size()));
  out.close();
  if (!out) {
    std::remove(path.c_str());
    return Error::file("cannot write " + path);
  }
  return std::nullopt;
}

}  // namespace nembra
