#include <algorithm>
#include <cstdio>
#include <vector>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_encode_sink.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"
#include "platform/media/frame_grabber.h"
#include "platform/media/media_converter.h"

namespace nembra {
namespace {

struct Decoder {
  int index = -1;
  AvCodecContext context;
};

OptionalError openDecoder(AVFormatContext& input, AVMediaType type, Decoder& decoder) {
  return openBestAvDecoder(input, type, decoder.index, decoder.context);
}

class FfmpegMediaConverter final : public MediaConverter {
 public:
  bool canConvert(const std::string& path) override {
    // A picture that decodes is what the export needs.
    GrabbedFrame frame;
    FrameGrabOptions options;
    options.maxWidth = 64;
    options.maxHeight = 64;
    return !newFfmpegFrameGrabber()->grab(path, options, frame);
  }

  OptionalError convert(const std::string& inputPath, const std::string& outputPath,
                        const ConvertOptions& options) override {
    std::string openError;
    AvInput input = openAvInput(inputPath, openError);
    if (!input) return Error::media("cannot open " + inputPath + " as media (" + openError + ")");
    Decoder video, audio;
    if (auto error = openDecoder(*input, AVMEDIA_TYPE_VIDEO, video)) return error;
    if (auto error = openDecoder(*input, AVMEDIA_TYPE_AUDIO, audio)) return error;
    if (video.index < 0) return Error::media("no picture track in " + inputPath);

    AVStream* videoStream = input->streams[video.index];
    EncodeSettings settings;
    settings.format = "mp4";
    fitInside(video.context->width, video.context->height, options.maxWidth, options.maxHeight,
              settings.width, settings.height);
    AVRational rate = av_guess_frame_rate(input.get(), videoStream, nullptr);
    settings.frameRate = rate.num > 0 && rate.den > 0 ? std::clamp(rate.num / rate.den, 1, 60) : 25;
    settings.videoBitRate = options.videoBitRate;
    if (audio.index >= 0) {
      settings.sampleRate = options.sampleRate;
      settings.channels = 1;
      settings.audioBitRate = options.audioBitRate;
    }
    std::unique_ptr<MediaEncodeSink> sink;
    if (auto error = MediaEncodeSink::open(outputPath, settings, sink)) return error;

    AvPacket packet(av_packet_alloc());
    AvFrame frame(av_frame_alloc());
    if (!packet || !frame) return Error::internal("out of memory");
    int64_t start = videoStream->start_time == AV_NOPTS_VALUE ? 0 : videoStream->start_time;
    auto take = [&](Decoder& decoder, bool isVideo) -> OptionalError {
      for (;;) {
        int rc = avcodec_receive_frame(decoder.context.get(), frame.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::nullopt;
        if (rc < 0) return Error::media("decoding failed: " + avErrorText(rc));
        OptionalError error;
        if (isVideo) {
          int64_t when =
              frame->best_effort_timestamp == AV_NOPTS_VALUE ? start : frame->best_effort_timestamp;
          double seconds = (when - start) * av_q2d(videoStream->time_base);
          error = sink->writePicture(*frame, std::max(0.0, seconds));
        } else {
          error = sink->writeSound(*frame);
        }
        av_frame_unref(frame.get());
        if (error) return error;
      }
    };
    while (av_read_frame(input.get(), packet.get()) >= 0) {
      Decoder* decoder = packet->stream_index == video.index   ? &video
                         : packet->stream_index == audio.index ? &audio
                                                               : nullptr;
      if (decoder) {
        int rc = avcodec_send_packet(decoder->context.get(), packet.get());
        // A damaged packet is skipped; the next key frame recovers.
        if (rc < 0 && rc != AVERROR(EAGAIN) && rc != AVERROR_INVALIDDATA) {
          av_packet_unref(packet.get());
          return Error::media("decoding failed: " + avErrorText(rc));
        }
      }
      av_packet_unref(packet.get());
      if (decoder) {
        if (auto error = take(*decoder, decoder == &video)) return error;
      }
    }
    for (Decoder* decoder : {&video, &audio}) {
      if (decoder->index < 0) continue;
      avcodec_send_packet(decoder->context.get(), nullptr);
      if (auto error = take(*decoder, decoder == &video)) return error;
    }
    return sink->finish();
  }
};

}  // namespace

std::unique_ptr<MediaConverter> newFfmpegMediaConverter() {
  return std::make_unique<FfmpegMediaConverter>();
}

}  // namespace nembra
