#include <algorithm>
#include <cmath>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_encode_sink.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"

namespace nembra {
namespace {

// Time stamps are rounded by containers; a picture this close to a cut point is on it.
constexpr double kTimeSlack = 1e-3;

struct Track {
  int index = -1;
  AVStream* stream = nullptr;
  AvCodecContext context;
};

OptionalError openTrack(AVFormatContext& input, AVMediaType type, Track& track) {
  if (auto error = openBestAvDecoder(input, type, track.index, track.context)) return error;
  if (track.index >= 0) track.stream = input.streams[track.index];
  return std::nullopt;
}

double frameRateOf(AVFormatContext& input, AVStream& stream) {
  AVRational rate = av_guess_frame_rate(&input, &stream, nullptr);
  return rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 25.0;
}

double durationOf(AVFormatContext& input, AVStream& stream) {
  if (stream.duration > 0) return stream.duration * av_q2d(stream.time_base);
  return input.duration > 0 ? static_cast<double>(input.duration) / AV_TIME_BASE : 0.0;
}

// The samples [skip, skip + count) of |frame| as a frame of their own.
AvFrame sliceSound(const AVFrame& frame, int skip, int count) {
  AvFrame slice(av_frame_alloc());
  if (!slice) return slice;
  slice->format = frame.format;
  slice->sample_rate = frame.sample_rate;
  slice->nb_samples = count;
  if (av_channel_layout_copy(&slice->ch_layout, &frame.ch_layout) < 0 ||
      av_frame_get_buffer(slice.get(), 0) < 0) {
    return AvFrame();
  }
  av_samples_copy(slice->extended_data, frame.extended_data, 0, skip, count,
                  frame.ch_layout.nb_channels, static_cast<AVSampleFormat>(frame.format));
  return slice;
}

class FfmpegMediaTrimmer final : public MediaTrimmer {
 public:
  OptionalError describe(const std::string& path, TrimSource& source) override {
    std::string openError;
    AvInput input = openAvInput(path, openError);
    if (!input) return Error::media("cannot open " + path + " as media (" + openError + ")");
    int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0 || (input->streams[index]->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
      return Error::media("no picture track in " + path);
    }
    AVStream& stream = *input->streams[index];
    source.duration = durationOf(*input, stream);
    source.frameRate = frameRateOf(*input, stream);
    source.width = stream.codecpar->width;
    source.height = stream.codecpar->height;
    source.hasAudio = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0) >= 0;
    return std::nullopt;
  }

  OptionalError trim(const std::string& inputPath, const std::string& outputPath,
                     double startSeconds, double endSeconds) override {
    if (!(startSeconds >= 0) || !(endSeconds > startSeconds)) {
      return Error::invalidArgument("the end of a cut must come after its start");
    }
    std::string openError;
    AvInput input = openAvInput(inputPath, openError);
    if (!input) return Error::media("cannot open " + inputPath + " as media (" + openError + ")");
    Track video, audio;
    if (auto error = openTrack(*input, AVMEDIA_TYPE_VIDEO, video)) return error;
    if (auto error = openTrack(*input, AVMEDIA_TYPE_AUDIO, audio)) return error;
    if (video.index < 0) return Error::media("no picture track in " + inputPath);

    // Both tracks are timed from the picture track's start, so they stay together.
    const double origin = video.stream->start_time == AV_NOPTS_VALUE
                              ? 0.0
                              : video.stream->start_time * av_q2d(video.stream->time_base);
    const double frameRate = frameRateOf(*input, *video.stream);
    EncodeSettings settings;
    settings.format = "mp4";
    // 4:2:0 wants even sides.
    settings.width = std::max(2, video.context->width & ~1);
    settings.height = std::max(2, video.context->height & ~1);
    settings.frameRate = std::clamp(static_cast<int>(std::lround(frameRate)), 1, 120);
    settings.videoBitRate = std::max<int64_t>(
        1'000'000, static_cast<int64_t>(settings.width) * settings.height * settings.frameRate / 7);
    if (audio.index >= 0) {
      settings.sampleRate = audio.context->sample_rate > 0 ? audio.context->sample_rate : 48000;
      settings.channels = std::clamp(audio.context->ch_layout.nb_channels, 1, 2);
      settings.audioBitRate = 128000;
    }
    std::unique_ptr<MediaEncodeSink> sink;
    if (auto error = MediaEncodeSink::open(outputPath, settings, sink)) return error;

    if (startSeconds > 0) {
      // From the key frame at or before the start; what precedes the start is decoded only.
      const int64_t target =
          std::llround((origin + startSeconds) / av_q2d(video.stream->time_base));
      if (av_seek_frame(input.get(), video.index, target, AVSEEK_FLAG_BACKWARD) < 0) {
        av_seek_frame(input.get(), video.index, 0, AVSEEK_FLAG_BACKWARD);
      }
    }

    AvPacket packet(av_packet_alloc());
    AvFrame frame(av_frame_alloc());
    if (!packet || !frame) return Error::internal("out of memory");
    bool videoDone = false;
    bool audioDone = audio.index < 0;
    int pictures = 0;
    auto take = [&](Track& track) -> OptionalError {
      const bool isVideo = &track == &video;
      for (;;) {
        int rc = avcodec_receive_frame(track.context.get(), frame.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::nullopt;
        if (rc < 0) return Error::media("decoding failed: " + avErrorText(rc));
        OptionalError error;
        if (frame->best_effort_timestamp != AV_NOPTS_VALUE) {
          const double at = frame->best_effort_timestamp * av_q2d(track.stream->time_base) - origin;
          if (isVideo) {
            if (at + kTimeSlack >= endSeconds) {
              videoDone = true;
            } else if (at + kTimeSlack >= startSeconds) {
              error = sink->writePicture(*frame, std::max(0.0, at - startSeconds));
              ++pictures;
            }
          } else {
            error = takeSound(*sink, *frame, at, startSeconds, endSeconds, audioDone);
          }
        }
        av_frame_unref(frame.get());
        if (error) return error;
      }
    };
    while (!(videoDone && audioDone) && av_read_frame(input.get(), packet.get()) >= 0) {
      Track* track = packet->stream_index == video.index   ? &video
                     : packet->stream_index == audio.index ? &audio
                                                           : nullptr;
      if (track && !(track == &video ? videoDone : audioDone)) {
        int rc = avcodec_send_packet(track->context.get(), packet.get());
        // A damaged packet is skipped; the next key frame recovers.
        if (rc < 0 && rc != AVERROR(EAGAIN) && rc != AVERROR_INVALIDDATA) {
          av_packet_unref(packet.get());
          return Error::media("decoding failed: " + avErrorText(rc));
        }
      }
      av_packet_unref(packet.get());
      if (track) {
        if (auto error = take(*track)) return error;
      }
    }
    for (Track* track : {&video, &audio}) {
      if (track->index < 0) continue;
      avcodec_send_packet(track->context.get(), nullptr);
      if (auto error = take(*track)) return error;
    }
    if (pictures == 0) {
      return Error::invalidArgument("no picture of " + inputPath + " lies between " +
                                    std::to_string(startSeconds) + " s and " +
                                    std::to_string(endSeconds) + " s");
    }
    return sink->finish();
  }

 private:
  static OptionalError takeSound(MediaEncodeSink& sink, const AVFrame& frame, double at,
                                 double start, double end, bool& done) {
    if (frame.sample_rate <= 0 || frame.nb_samples <= 0) return std::nullopt;
    const double rate = frame.sample_rate;
    const int skip =
        std::clamp(static_cast<int>(std::lround((start - at) * rate)), 0, frame.nb_samples);
    const int stop =
        std::clamp(static_cast<int>(std::lround((end - at) * rate)), 0, frame.nb_samples);
    if (stop < frame.nb_samples) done = true;
    if (stop <= skip) return std::nullopt;
    if (skip == 0 && stop == frame.nb_samples) return sink.writeSound(frame);
    AvFrame slice = sliceSound(frame, skip, stop - skip);
    if (!slice) return Error::internal("out of memory");
    return sink.writeSound(*slice);
  }
};

}  // namespace

std::unique_ptr<MediaTrimmer> newFfmpegMediaTrimmer() {
  return std::make_unique<FfmpegMediaTrimmer>();
}

}  // namespace nembra
