#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"
#include "platform/media/audio_pcm_decoder.h"

namespace nembra {
namespace {

struct SwrFreer {
  void operator()(SwrContext* context) const { swr_free(&context); }
};
using Resampler = std::unique_ptr<SwrContext, SwrFreer>;

class FfmpegAudioPcmDecoder final : public AudioPcmDecoder {
 public:
  OptionalError decode(const std::string& path, int sampleRate, const Sink& sink) override {
    std::string openError;
    AvInput input = openAvInput(path, openError);
    if (!input) return Error::media("not a media file (" + openError + ")");
    const AVCodec* codec = nullptr;
    int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
    if (index < 0 || !codec) return Error::media("no sound track in " + path);
    AVStream* stream = input->streams[index];

    AvCodecContext decoder(avcodec_alloc_context3(codec));
    if (!decoder) return Error::media("out of memory");
    if (avcodec_parameters_to_context(decoder.get(), stream->codecpar) < 0 ||
        avcodec_open2(decoder.get(), codec, nullptr) < 0) {
      return Error::media(std::string("cannot open the ") + codec->name + " decoder");
    }

    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    if (decoder->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
      av_channel_layout_default(&decoder->ch_layout, decoder->ch_layout.nb_channels);
    }
    SwrContext* raw = nullptr;
    int result =
        swr_alloc_set_opts2(&raw, &mono, AV_SAMPLE_FMT_S16, sampleRate, &decoder->ch_layout,
                            decoder->sample_fmt, decoder->sample_rate, 0, nullptr);
    Resampler resampler(raw);
    if (result < 0 || swr_init(resampler.get()) < 0) {
      return Error::media("cannot convert the sound to " + std::to_string(sampleRate) + " Hz");
    }

    AvPacket packet(av_packet_alloc());
    AvFrame frame(av_frame_alloc());
    if (!packet || !frame) return Error::media("out of memory");
    std::vector<int16_t> block;
    bool stopped = false;

    // Resamples what the decoder holds; a null frame drains the resampler.
    auto deliver = [&](const AVFrame* decoded) -> bool {
      int inCount = decoded ? decoded->nb_samples : 0;
      int capacity = swr_get_out_samples(resampler.get(), inCount);
      if (capacity <= 0) return true;
      block.resize(static_cast<size_t>(capacity));
      uint8_t* out[] = {reinterpret_cast<uint8_t*>(block.data())};
      int produced = swr_convert(
          resampler.get(), out, capacity,
          decoded ? const_cast<const uint8_t**>(decoded->extended_data) : nullptr, inCount);
      if (produced < 0) return false;
      if (produced > 0 && !sink(block.data(), static_cast<size_t>(produced))) {
        stopped = true;
        return false;
      }
      return true;
    };
    auto receive = [&]() -> OptionalError {
      while (true) {
        int status = avcodec_receive_frame(decoder.get(), frame.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return std::nullopt;
        if (status < 0) return Error::media("the sound does not decode: " + avErrorText(status));
        bool going = deliver(frame.get());
        av_frame_unref(frame.get());
        if (stopped) return Error::cancelled("sound decoding stopped");
        if (!going) return Error::media("the sound cannot be resampled");
      }
    };

    while (true) {
      int status = av_read_frame(input.get(), packet.get());
      if (status == AVERROR_EOF) break;
      if (status < 0) return Error::media("cannot read " + path + ": " + avErrorText(status));
      if (packet->stream_index == index) {
        status = avcodec_send_packet(decoder.get(), packet.get());
        av_packet_unref(packet.get());
        // A damaged packet is skipped as players skip it; the rest of the track still counts.
        if (status < 0 && status != AVERROR(EAGAIN) && status != AVERROR_INVALIDDATA) {
          return Error::media("the sound does not decode: " + avErrorText(status));
        }
        if (auto error = receive()) return error;
      } else {
        av_packet_unref(packet.get());
      }
    }
    avcodec_send_packet(decoder.get(), nullptr);
    if (auto error = receive()) return error;
    if (!deliver(nullptr)) {
      return stopped ? Error::cancelled("sound decoding stopped")
                     : Error::media("the sound cannot be resampled");
    }
    return std::nullopt;
  }
};

}  // namespace

std::unique_ptr<AudioPcmDecoder> newFfmpegAudioPcmDecoder() {
  return std::make_unique<FfmpegAudioPcmDecoder>();
}

}  // namespace nembra
