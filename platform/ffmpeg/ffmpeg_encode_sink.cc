#include "platform/ffmpeg/ffmpeg_encode_sink.h"

#include <cmath>
#include <cstdio>

#include "platform/ffmpeg/ffmpeg_av_support.h"

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace nembra {

namespace {

struct OutputCloser {
  void operator()(AVFormatContext* context) const {
    if (context->pb && !(context->oformat->flags & AVFMT_NOFILE)) avio_closep(&context->pb);
    avformat_free_context(context);
  }
};
struct SwsFreer {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
struct SwrFreer {
  void operator()(SwrContext* context) const { swr_free(&context); }
};
struct FifoFreer {
  void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
};

}  // namespace

struct MediaEncodeSink::State {
  std::string path;
  EncodeSettings settings;
  std::unique_ptr<AVFormatContext, OutputCloser> output;
  AvCodecContext video;
  AvCodecContext audio;
  AVStream* videoStream = nullptr;
  AVStream* audioStream = nullptr;
  std::unique_ptr<SwsContext, SwsFreer> scaler;
  int scalerWidth = 0, scalerHeight = 0, scalerFormat = -1;
  AvFrame picture;
  int64_t lastPicturePts = -1;
  std::unique_ptr<SwrContext, SwrFreer> resampler;
  AVChannelLayout resamplerInLayout{};
  int resamplerInRate = 0, resamplerInFormat = -1;
  std::unique_ptr<AVAudioFifo, FifoFreer> fifo;
  int64_t audioPts = 0;
  AvPacket packet{av_packet_alloc()};
  bool finished = false;

  ~State() { av_channel_layout_uninit(&resamplerInLayout); }

  OptionalError drain(AVCodecContext& encoder, AVStream& stream) {
    for (;;) {
      int rc = avcodec_receive_packet(&encoder, packet.get());
      if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return std::nullopt;
      if (rc < 0) return Error::media("encoding failed: " + avErrorText(rc));
      // The muxer times the last picture by its packet's duration: without one, a file of one
      // picture has none.
      if (encoder.codec_type == AVMEDIA_TYPE_VIDEO && packet->duration <= 0) {
        packet->duration = av_rescale_q(1, AVRational{1, settings.frameRate}, encoder.time_base);
      }
      av_packet_rescale_ts(packet.get(), encoder.time_base, stream.time_base);
      packet->stream_index = stream.index;
      rc = av_interleaved_write_frame(output.get(), packet.get());
      if (rc < 0) return Error::file("cannot write " + path + ": " + avErrorText(rc));
    }
  }

  OptionalError encode(AVCodecContext& encoder, AVStream& stream, AVFrame* frame) {
    int rc = avcodec_send_frame(&encoder, frame);
    if (rc < 0 && rc != AVERROR_EOF) return Error::media("encoding failed: " + avErrorText(rc));
    return drain(encoder, stream);
  }

  // Sends whole encoder frames from the FIFO; with |flush| also the last partial one.
  OptionalError sendSound(bool flush) {
    const int frameSize = audio->frame_size > 0 ? audio->frame_size : 1024;
    while (av_audio_fifo_size(fifo.get()) >= frameSize ||
           (flush && av_audio_fifo_size(fifo.get()) > 0)) {
      int count = std::min(frameSize, av_audio_fifo_size(fifo.get()));
      AvFrame frame(av_frame_alloc());
      if (!frame) return Error::internal("out of memory");
      frame->nb_samples = count;
      frame->format = audio->sample_fmt;
      frame->sample_rate = audio->sample_rate;
      av_channel_layout_copy(&frame->ch_layout, &audio->ch_layout);
      if (av_frame_get_buffer(frame.get(), 0) < 0) return Error::internal("out of memory");
      av_audio_fifo_read(fifo.get(), reinterpret_cast<void**>(frame->data), count);
      frame->pts = audioPts;
      audioPts += count;
      if (auto error = encode(*audio, *audioStream, frame.get())) return error;
    }
    return std::nullopt;
  }
};

MediaEncodeSink::MediaEncodeSink(std::unique_ptr<State> state) : state_(std::move(state)) {}

MediaEncodeSink::~MediaEncodeSink() {
  if (!state_->finished) {
    state_->output.reset();
    std::remove(state_->path.c_str());
  }
}

OptionalError MediaEncodeSink::open(const std::string& path, const EncodeSettings& settings,
                                    std::unique_ptr<MediaEncodeSink>& sink) {
  auto state = std::make_unique<State>();
  state->path = path;
  state->settings = settings;
  if (!state->packet) return Error::internal("out of memory");
  AVFormatContext* raw = nullptr;
  int rc = avformat_alloc_output_context2(
      &raw, nullptr, settings.format.empty() ? nullptr : settings.format.c_str(), path.c_str());
  if (rc < 0 || !raw) return Error::media("no container for " + path + ": " + avErrorText(rc));
  state->output.reset(raw);

  if (settings.width > 0) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (!codec) codec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    if (!codec) return Error::media("this FFmpeg has no H.264 or MPEG-4 encoder");
    state->video.reset(avcodec_alloc_context3(codec));
    if (!state->video) return Error::internal("out of memory");
    AVCodecContext& video = *state->video;
    video.width = settings.width;
    video.height = settings.height;
    video.pix_fmt = AV_PIX_FMT_YUV420P;
    video.time_base = AVRational{1, settings.frameRate * 1000};
    video.framerate = AVRational{settings.frameRate, 1};
    video.bit_rate = settings.videoBitRate;
    video.gop_size = settings.frameRate * 2;
    video.max_b_frames = 0;
    if (raw->oformat->flags & AVFMT_GLOBALHEADER) video.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (std::string(codec->name) == "libx264") {
      av_opt_set(video.priv_data, "preset", "veryfast", 0);
    }
    rc = avcodec_open2(&video, codec, nullptr);
    if (rc < 0) return Error::media("cannot open the picture encoder: " + avErrorText(rc));
    state->videoStream = avformat_new_stream(raw, nullptr);
    if (!state->videoStream) return Error::internal("out of memory");
    avcodec_parameters_from_context(state->videoStream->codecpar, &video);
    state->videoStream->time_base = video.time_base;
    state->picture = allocateAvPicture(AV_PIX_FMT_YUV420P, settings.width, settings.height);
    if (!state->picture) return Error::internal("out of memory");
  }

  if (settings.sampleRate > 0) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec) return Error::media("this FFmpeg has no AAC encoder");
    state->audio.reset(avcodec_alloc_context3(codec));
    if (!state->audio) return Error::internal("out of memory");
    AVCodecContext& audio = *state->audio;
    audio.sample_rate = settings.sampleRate;
    av_channel_layout_default(&audio.ch_layout, settings.channels);
    audio.sample_fmt = codec->sample_fmts ? codec->sample_fmts[0] : AV_SAMPLE_FMT_FLTP;
    audio.bit_rate = settings.audioBitRate;
    audio.time_base = AVRational{1, settings.sampleRate};
    if (raw->oformat->flags & AVFMT_GLOBALHEADER) audio.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    rc = avcodec_open2(&audio, codec, nullptr);
    if (rc < 0) return Error::media("cannot open the AAC encoder: " + avErrorText(rc));
    state->audioStream = avformat_new_stream(raw, nullptr);
    if (!state->audioStream) return Error::internal("out of memory");
    avcodec_parameters_from_context(state->audioStream->codecpar, &audio);
    state->audioStream->time_base = audio.time_base;
    state->fifo.reset(av_audio_fifo_alloc(audio.sample_fmt, settings.channels, 4096));
    if (!state->fifo) return Error::internal("out of memory");
  }
  if (!state->video && !state->audio) return Error::invalidArgument("a media file needs a track");

  if (!(raw->oformat->flags & AVFMT_NOFILE)) {
    rc = avio_open(&raw->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) return Error::file("cannot create " + path + ": " + avErrorText(rc));
  }
  AVDictionary* options = nullptr;
  if (settings.fastStart && std::string(raw->oformat->name).find("mp4") != std::string::npos) {
    av_dict_set(&options, "movflags", "+faststart", 0);
  }
  rc = avformat_write_header(raw, &options);
  av_dict_free(&options);
  if (rc < 0) {
    sink.reset(new MediaEncodeSink(std::move(state)));
    sink.reset();
    return Error::file("cannot write " + path + ": " + avErrorText(rc));
  }
  sink.reset(new MediaEncodeSink(std::move(state)));
  return std::nullopt;
}

OptionalError MediaEncodeSink::writePicture(const AVFrame& source, double seconds) {
  State& s = *state_;
  if (!s.video) return Error::invalidArgument("this file has no picture track");
  if (!s.scaler || s.scalerWidth != source.width || s.scalerHeight != source.height ||
      s.scalerFormat != source.format) {
    s.scaler.reset(sws_getContext(
        source.width, source.height, static_cast<AVPixelFormat>(source.format), s.settings.width,
        s.settings.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!s.scaler) return Error::media("cannot convert the picture's pixel format");
    s.scalerWidth = source.width;
    s.scalerHeight = source.height;
    s.scalerFormat = source.format;
  }
  if (av_frame_make_writable(s.picture.get()) < 0) return Error::internal("out of memory");
  sws_scale(s.scaler.get(), source.data, source.linesize, 0, source.height, s.picture->data,
            s.picture->linesize);
  int64_t pts = std::llround(seconds / av_q2d(s.video->time_base));
  // The encoder needs rising timestamps; a repeated one moves on by a tick.
  if (pts <= s.lastPicturePts) pts = s.lastPicturePts + 1;
  s.lastPicturePts = pts;
  s.picture->pts = pts;
  return s.encode(*s.video, *s.videoStream, s.picture.get());
}

OptionalError MediaEncodeSink::writeSound(const AVFrame& frame) {
  State& s = *state_;
  if (!s.audio) return Error::invalidArgument("this file has no sound track");
  if (!s.resampler || s.resamplerInRate != frame.sample_rate ||
      s.resamplerInFormat != frame.format ||
      av_channel_layout_compare(&s.resamplerInLayout, &frame.ch_layout) != 0) {
    SwrContext* raw = nullptr;
    int rc = swr_alloc_set_opts2(
        &raw, &s.audio->ch_layout, s.audio->sample_fmt, s.audio->sample_rate,
        const_cast<AVChannelLayout*>(&frame.ch_layout), static_cast<AVSampleFormat>(frame.format),
        frame.sample_rate, 0, nullptr);
    if (rc < 0 || !raw || swr_init(raw) < 0) {
      swr_free(&raw);
      return Error::media("cannot resample the sound");
    }
    s.resampler.reset(raw);
    av_channel_layout_uninit(&s.resamplerInLayout);
    av_channel_layout_copy(&s.resamplerInLayout, &frame.ch_layout);
    s.resamplerInRate = frame.sample_rate;
    s.resamplerInFormat = frame.format;
  }
  int capacity = swr_get_out_samples(s.resampler.get(), frame.nb_samples);
  AvFrame converted(av_frame_alloc());
  if (!converted) return Error::internal("out of memory");
  converted->nb_samples = std::max(capacity, 1);
  converted->format = s.audio->sample_fmt;
  converted->sample_rate = s.audio->sample_rate;
  av_channel_layout_copy(&converted->ch_layout, &s.audio->ch_layout);
  if (av_frame_get_buffer(converted.get(), 0) < 0) return Error::internal("out of memory");
  int got = swr_convert(s.resampler.get(), converted->data, converted->nb_samples,
                        const_cast<const uint8_t**>(frame.extended_data), frame.nb_samples);
  if (got < 0) return Error::media("cannot resample the sound: " + avErrorText(got));
  if (av_audio_fifo_write(s.fifo.get(), reinterpret_cast<void**>(converted->data), got) < got) {
    return Error::internal("out of memory");
  }
  return s.sendSound(false);
}

OptionalError MediaEncodeSink::finish() {
  State& s = *state_;
  if (s.video) {
    if (auto error = s.encode(*s.video, *s.videoStream, nullptr)) return error;
  }
  if (s.audio) {
    if (auto error = s.sendSound(true)) return error;
    if (auto error = s.encode(*s.audio, *s.audioStream, nullptr)) return error;
  }
  int rc = av_write_trailer(s.output.get());
  if (rc < 0) return Error::file("cannot finish " + s.path + ": " + avErrorText(rc));
  if (s.output->pb) {
    rc = avio_closep(&s.output->pb);
    if (rc < 0) return Error::file("cannot finish " + s.path + ": " + avErrorText(rc));
  }
  s.finished = true;
  return std::nullopt;
}

}  // namespace nembra
