#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/ffmpeg/ffmpeg_av_support.h"
#include "platform/ffmpeg/ffmpeg_media_backend.h"
#include "platform/media/media_remuxer.h"

namespace nembra {
namespace {

struct OutputCloser {
  void operator()(AVFormatContext* context) const {
    if (context->pb && !(context->oformat->flags & AVFMT_NOFILE)) avio_closep(&context->pb);
    avformat_free_context(context);
  }
};
using AvOutput = std::unique_ptr<AVFormatContext, OutputCloser>;

struct DictionaryFreer {
  AVDictionary* dictionary = nullptr;
  ~DictionaryFreer() { av_dict_free(&dictionary); }
};

class FfmpegMediaRemuxer final : public MediaRemuxer {
 public:
  OptionalError remux(const std::string& input, const std::string& output,
                      const RemuxOptions& options) override {
    OptionalError error = copy(input, output, options);
    if (error) std::remove(output.c_str());
    return error;
  }

 private:
  static OptionalError copy(const std::string& inputPath, const std::string& outputPath,
                            const RemuxOptions& options) {
    std::string openError;
    AvInput input = openAvInput(inputPath, openError);
    if (!input) return Error::media("cannot open " + inputPath + " as media (" + openError + ")");

    AVFormatContext* rawOutput = nullptr;
    int rc = avformat_alloc_output_context2(&rawOutput, nullptr, options.format.c_str(),
                                            outputPath.c_str());
    if (rc < 0 || !rawOutput) {
      return Error::invalidArgument("unknown container \"" + options.format + "\"");
    }
    AvOutput output(rawOutput);

    // Input track index -> output track index, -1 for the tracks left out.
    std::vector<int> mapping(input->nb_streams, -1);
    int copied = 0;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
      const AVStream* in = input->streams[i];
      AVMediaType type = in->codecpar->codec_type;
      if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO) continue;
      if (in->disposition & AV_DISPOSITION_ATTACHED_PIC) continue;
      AVStream* out = avformat_new_stream(output.get(), nullptr);
      if (!out) return Error::internal("out of memory");
      rc = avcodec_parameters_copy(out->codecpar, in->codecpar);
      if (rc < 0) return Error::media("cannot copy track parameters: " + avErrorText(rc));
      // The source container's codec tag means nothing in the new one.
      out->codecpar->codec_tag = 0;
      out->time_base = in->time_base;
      av_dict_copy(&out->metadata, in->metadata, 0);
      size_t size = 0;
      if (const uint8_t* matrix = av_stream_get_side_data(in, AV_PKT_DATA_DISPLAYMATRIX, &size)) {
        uint8_t* copy = av_stream_new_side_data(out, AV_PKT_DATA_DISPLAYMATRIX, size);
        if (copy) memcpy(copy, matrix, size);
      }
      mapping[i] = copied++;
    }
    if (copied == 0) return Error::media("no audio or picture track in " + inputPath);

    if (!(output->oformat->flags & AVFMT_NOFILE)) {
      rc = avio_open(&output->pb, outputPath.c_str(), AVIO_FLAG_WRITE);
      if (rc < 0) {
        return Error::file("cannot write " + outputPath + ": " + avErrorText(rc), AVUNERROR(rc));
      }
    }
    DictionaryFreer muxerOptions;
    if (options.fastStart) av_dict_set(&muxerOptions.dictionary, "movflags", "+faststart", 0);
    rc = avformat_write_header(output.get(), &muxerOptions.dictionary);
    if (rc < 0) return Error::media("cannot start the output: " + avErrorText(rc));

    AvPacket packet(av_packet_alloc());
    if (!packet) return Error::internal("out of memory");
    for (;;) {
      rc = av_read_frame(input.get(), packet.get());
      if (rc == AVERROR_EOF) break;
      if (rc < 0) return Error::media("cannot read " + inputPath + ": " + avErrorText(rc));
      int target = mapping[packet->stream_index];
      if (target < 0) {
        av_packet_unref(packet.get());
        continue;
      }
      AVStream* in = input->streams[packet->stream_index];
      AVStream* out = output->streams[target];
      av_packet_rescale_ts(packet.get(), in->time_base, out->time_base);
      packet->stream_index = target;
      packet->pos = -1;
      rc = av_interleaved_write_frame(output.get(), packet.get());
      if (rc < 0) return Error::media("cannot write a packet: " + avErrorText(rc));
    }
    rc = av_write_trailer(output.get());
    if (rc < 0) return Error::media("cannot finish the output: " + avErrorText(rc));
    return std::nullopt;
  }
};

}  // namespace

std::unique_ptr<MediaRemuxer> newFfmpegMediaRemuxer() {
  return std::make_unique<FfmpegMediaRemuxer>();
}

}  // namespace nembra
